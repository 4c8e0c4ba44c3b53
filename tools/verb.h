#ifndef VEKMSG_TOOLS_VERB_H
#define VEKMSG_TOOLS_VERB_H

#include <memory>
#include <string>
#include <vector>

#include "arguments.h"
#include "exit_code.h"
#include "output.h"

/// What a verb says about itself. Lines have 80 columns at the most; tests look that the whole help of a verb
/// fits 24 of them, and run the examples.
struct VerbText_ {
    std::string m_name;
    std::string m_summary;                   // in the list of verbs: at most 60 characters
    std::vector<std::string> m_description;  // lines
    std::vector<std::string> m_examples;     // two command lines, as a shell takes them
};

/// One verb of the command. `declare` comes first, and `run` when the command line named this verb.
class Verb_ {
public:
    virtual ~Verb_() = default;

    virtual const VerbText_& text() const = 0;
    virtual void declare(Arguments_& arguments) = 0;

    /// Gives the exit code or throws a Failure_, whose text becomes a note on standard error.
    virtual ExitCode_ run(const CommonOptions_& common, Output_& output) = 0;
};

using UniqueVerb_ = std::unique_ptr<Verb_>;

// Each is in the file of its name: verb_list.cpp, verb_check.cpp ...
UniqueVerb_ createListVerb();
UniqueVerb_ createCheckVerb();
UniqueVerb_ createDecodeVerb();
UniqueVerb_ createEncodeVerb();
UniqueVerb_ createPingVerb();
UniqueVerb_ createSendVerb();
UniqueVerb_ createCallVerb();
UniqueVerb_ createListenVerb();
UniqueVerb_ createRelayVerb();
UniqueVerb_ createCompletionVerb();
UniqueVerb_ createWaitVerb();

#endif
