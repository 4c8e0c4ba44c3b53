#include <unistd.h>

#include <nlohmann/json.hpp>

#include "hex.h"
#include "input.h"
#include "message_json.h"
#include "verb.h"

namespace {

/// Makes bytes of what `decode --json` writes.
class EncodeVerb_ : public Verb_ {
public:
    const VerbText_& text() const override {
        static const VerbText_ s_text = {
            "encode",
            "messages in JSON as bytes",
            {"Reads what `vekmsg decode --json` and `vekmsg listen --json` write from FILE or",
             "standard input: messages, elements, items and blocks, any number of them.",
             "Writes their bytes in hexadecimal, one document a line, or one behind the other",
             "with --to=binary. What came from bytes gives the very same bytes again."},
            {R"(echo '{"tag":10,"elements":[{"tag":1,"uint":7}]}' | vekmsg encode)",
             R"(echo '{"block":1,"name":"shop"}' | vekmsg encode --to=binary | cat)"}};
        return s_text;
    }

    void declare(Arguments_& arguments) override {
        arguments.choice("--to", {"hex", "binary"}, m_form, "the form of the bytes");
        arguments.optionalWord("FILE", m_file, "");
    }

    ExitCode_ run(const CommonOptions_&, Output_& output) override {
        const bool isBinary = m_form == "binary";
        if (isBinary && output.isTerminal())
            throw Failure_(ExitCode_::Usage,
                           "bytes are not for a terminal: redirect the output, or use --to=hex");
        const std::vector<Json_> documents = parseDocuments(readInput(m_file));
        if (documents.empty()) throw Failure_(ExitCode_::BadData, "there is no document to encode");
        std::size_t number = 0;
        for (const Json_& document : documents) {
            ++number;
            try {
                const std::string bytes = bytesOf(document);
                output.write(isBinary ? bytes : hexOf(bytes) + '\n');
            } catch (const Failure_& failure) {
                output.flush();
                throw Failure_(failure.code(), "document " + std::to_string(number) + ": " + failure.what());
            }
        }
        return ExitCode_::Done;
    }

private:
    std::string m_form = "hex";
    std::string m_file;
};

}  // namespace

UniqueVerb_ createEncodeVerb() {
    return std::make_unique<EncodeVerb_>();
}
