#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "directory_file.h"
#include "vekmsg/version.h"

namespace {

constexpr std::size_t kOptionColumn = 24;
constexpr char kJsonOption[] = "--json";

/// "  -c,--count N          how many" and, without room beside it, the help in a line of its own.
std::string helpLine(const std::string& what, const std::string& help) {
    std::string line = "  " + what;
    if (line.size() + 2 > kOptionColumn)
        line += '\n' + std::string(kOptionColumn, ' ');
    else
        line.append(kOptionColumn - line.size(), ' ');
    return line + help + '\n';
}

std::string optionText(const CLI::Option& option) {
    if (option.get_positional()) return option.get_name(true, false);
    if (option.check_name(kJsonOption)) return kJsonOption + std::string("[=STYLE]");
    const std::string type = option.get_type_name();
    const std::string value = type.substr(0, type.find(':'));  // behind it: what CLI11 says about limits
    const bool hasValue = option.get_items_expected_max() != 0 && !value.empty();
    return option.get_name(false, true) + (hasValue ? ' ' + value : "");
}

std::string usageWord(const CLI::Option& option) {
    std::string word = option.get_name(true, false);
    if (option.get_items_expected_max() > 1) word += "...";
    return option.get_required() ? ' ' + word : " [" + word + ']';
}

std::vector<const CLI::Option*> ownOptions(const CLI::App& app) {
    std::vector<const CLI::Option*> options;
    for (const CLI::Option* p_option : app.get_options())
        if (p_option != app.get_help_ptr() && p_option != app.get_version_ptr()) options.push_back(p_option);
    return options;
}

std::string verbHelp(const CLI::App& app, const VerbText_& text) {
    std::string usage = "Usage: vekmsg " + text.m_name + " [OPTION...]";
    std::string list;
    for (const CLI::Option* p_option : ownOptions(app)) {
        if (p_option->get_positional()) usage += usageWord(*p_option);
        if (!p_option->get_description().empty())
            list += helpLine(optionText(*p_option), p_option->get_description());
    }
    std::string help = usage + "\n\n";
    for (const std::string& line : text.m_description) help += line + '\n';
    if (!list.empty()) help += '\n' + list;
    help += "\nCommon: -D FILE --as NAME --timeout TIME --json[=STYLE] -j -q -v (vekmsg --help)\n";
    help += "\nExamples:\n";
    for (const std::string& example : text.m_examples) help += "  " + example + '\n';
    return help;
}

std::string commandHelp(const CLI::App& app, const std::vector<UniqueVerb_>& verbs) {
    std::string help =
        "Usage: vekmsg [OPTION...] [VERB]\n\n"
        "See, send, ping, check and relay messages between the components of an\n"
        "installation. Without a verb: " +
        verbs.front()->text().m_name + ". More about each: vekmsg VERB --help, man vekmsg.\n\n";
    for (const UniqueVerb_& verb : verbs) help += helpLine(verb->text().m_name, verb->text().m_summary);
    help += "\nOptions of every verb:\n";
    for (const CLI::Option* p_option : ownOptions(app))
        help += helpLine(optionText(*p_option), p_option->get_description());
    help += helpLine("--version", "the version of command and library");
    help += helpLine("-h,--help", "this help, or that of a verb");
    help +=
        "\nTimes have units: 500ms, 2s, 1.5min.\n"
        "Exit codes: 0 done, 1 the other side answered with an error or not as expected,\n"
        "2 usage, 3 directory or configuration, 4 not reachable, 5 timed out, 6 bad data,\n"
        "130 and 143 ended by SIGINT and SIGTERM.\n";
    return help;
}

std::string versionText() {
    return "vekmsg " + std::to_string(VEKMSG_VERSION_MAJOR) + '.' + std::to_string(VEKMSG_VERSION_MINOR) +
           '.' + std::to_string(VEKMSG_VERSION_PATCH) + '\n';
}

/// How JSON is written where the line does not say it: for eyes on a terminal, for programs elsewhere.
JsonStyle_ jsonStyleOf(const std::string& text, bool isByOutput) {
    if (text == "pretty") return JsonStyle_::Pretty;
    if (text == "short") return JsonStyle_::Short;
    if (!isByOutput) return JsonStyle_::None;
    return Output_().isTerminal() ? JsonStyle_::Pretty : JsonStyle_::Short;
}

/// The texts that the options of every verb give.
struct CommonTexts_ {
    std::string m_json;
    bool m_isJsonByOutput = false;
};

void declareCommon(CLI::App& app, CommonOptions_& common, CommonTexts_& texts) {
    Arguments_ arguments(app);
    arguments.text("-D,--directory", "FILE", common.m_directory,
                   std::string("the directory file (") + kSystemDirectory + ")");
    arguments.text("--as", "NAME", common.m_as, "the name to open under (vekmsg-PROCESS)");
    app.add_option_function<std::string>(
           "--timeout", [&common](const std::string& text) { common.m_timeout = timeSpanOf(text); },
           "how long to wait for one thing")
        ->type_name("TIME");
    app.add_flag(kJsonOption + std::string("{short}"), texts.m_json,
                 "JSON: --json=short, one line each, or --json=pretty")
        ->check(CLI::IsMember({"short", "pretty"}));
    arguments.flag("-j", texts.m_isJsonByOutput, "JSON: pretty on a terminal, else short");
    arguments.flag("-q", common.m_isQuiet, "results and errors only");
    arguments.flag("-v", common.m_isVerbose, "all records of the library too");
}

}  // namespace

void Arguments_::flag(const std::string& names, bool& isSet, const std::string& help) {
    m_app.add_flag(names, isSet, help);
}

void Arguments_::text(const std::string& names, const std::string& valueName, std::string& value,
                      const std::string& help) {
    m_app.add_option(names, value, help)->type_name(valueName);
}

void Arguments_::number(const std::string& names, unsigned int least, unsigned int most, unsigned int& value,
                        const std::string& help) {
    m_app.add_option(names, value, help)->check(CLI::Range(least, most))->type_name("N");
}

void Arguments_::time(const std::string& names, TimeSpan_& value, const std::string& help) {
    m_app
        .add_option_function<std::string>(
            names, [&value](const std::string& text) { value = timeSpanOf(text); }, help)
        ->type_name("TIME");
}

void Arguments_::choice(const std::string& names, const std::vector<std::string>& choices, std::string& value,
                        const std::string& help) {
    m_app.add_option(names, value, help)
        ->check(CLI::IsMember(choices))
        ->type_name(CLI::detail::join(choices, "|"));
}

void Arguments_::word(const std::string& name, std::string& value, const std::string& help) {
    m_app.add_option(name, value, help)->required();
}

void Arguments_::optionalWord(const std::string& name, std::string& value, const std::string& help) {
    m_app.add_option(name, value, help);
}

void Arguments_::words(const std::string& name, bool isOptional, std::vector<std::string>& values,
                       const std::string& help) {
    m_app.add_option(name, values, help)->required(!isOptional);
}

const char* CommonOptions_::directory() const {
    return m_directory.empty() ? kSystemDirectory : m_directory.c_str();
}

Command_ readCommandLine(int argc, char** argv, const std::vector<UniqueVerb_>& verbs) {
    Command_ command;
    CommonTexts_ texts;
    CLI::App app;
    app.set_help_flag("-h,--help");
    app.set_version_flag("--version", versionText());
    app.require_subcommand(0, 1);
    declareCommon(app, command.m_common, texts);
    std::vector<CLI::App*> subcommands;
    for (const UniqueVerb_& verb : verbs) {
        subcommands.push_back(app.add_subcommand(verb->text().m_name)->fallthrough());
        Arguments_ arguments(*subcommands.back());
        verb->declare(arguments);
    }
    // The verb that the line names; the first one otherwise.
    const auto chosen = [&] {
        const auto named = std::find_if(subcommands.begin(), subcommands.end(),
                                        [](const CLI::App* p_app) { return p_app->parsed(); });
        return static_cast<std::size_t>(named - subcommands.begin());
    };
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForVersion&) {
        command.m_text = versionText();
        return command;
    } catch (const CLI::CallForHelp&) {
        const std::size_t verb = chosen();
        command.m_text = verb == verbs.size() ? commandHelp(app, verbs)
                                              : verbHelp(*subcommands[verb], verbs[verb]->text());
        return command;
    } catch (const CLI::ParseError& error) {
        const std::size_t verb = chosen();
        const std::string named = verb == verbs.size() ? "" : verbs[verb]->text().m_name + ' ';
        throw Failure_(ExitCode_::Usage, std::string(error.what()) + ". See vekmsg " + named + "--help");
    }
    command.m_p_verb = verbs[chosen() % verbs.size()].get();
    command.m_common.m_json = jsonStyleOf(texts.m_json, texts.m_isJsonByOutput);
    return command;
}
