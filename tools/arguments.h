#ifndef VEKMSG_TOOLS_ARGUMENTS_H
#define VEKMSG_TOOLS_ARGUMENTS_H

#include <optional>
#include <string>
#include <vector>

#include "time_span.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

/// What a verb takes from its command line. Each call names one option ("-c,--count") or word ("NAME") and
/// the variable that gets its value; without it on the line, the variable stays as it is.
///
/// The help of a verb is made of this: keep `help` to a few words, so that it fits a screen.
class Arguments_ {
public:
    explicit Arguments_(CLI::App& app) : m_app(app) {}

    void flag(const std::string& names, bool& isSet, const std::string& help);
    void text(const std::string& names, const std::string& valueName, std::string& value,
              const std::string& help);
    void number(const std::string& names, unsigned int least, unsigned int most, unsigned int& value,
                const std::string& help);
    void time(const std::string& names, TimeSpan_& value, const std::string& help);
    void choice(const std::string& names, const std::vector<std::string>& choices, std::string& value,
                const std::string& help);

    /// Words without a dash, in the order of these calls. Only the last one may be optional or repeated.
    void word(const std::string& name, std::string& value, const std::string& help);
    void optionalWord(const std::string& name, std::string& value, const std::string& help);
    void words(const std::string& name, bool isOptional, std::vector<std::string>& values,
               const std::string& help);

private:
    CLI::App& m_app;
};

enum class JsonStyle_ { None, Short, Pretty };

/// The options that every verb knows.
struct CommonOptions_ {
    /// What opens a file or a terminal, whether or not a directory was named.
    const char* directory() const;

    /// How long one thing may take that a verb waits for.
    TimeSpan_ timeout(TimeSpan_ otherwise) const { return m_timeout.value_or(otherwise); }

    std::string m_directory;
    std::string m_as;
    std::optional<TimeSpan_> m_timeout;
    JsonStyle_ m_json = JsonStyle_::None;
    bool m_isQuiet = false;
    bool m_isVerbose = false;
};

#endif
