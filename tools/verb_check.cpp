#include <nlohmann/json.hpp>

#include "finding_report.h"
#include "json_text.h"
#include "probe.h"
#include "verb.h"

namespace {

constexpr int kNagiosUnknown = 3;

using Entry_ = DirectoryFile_::Entry_;

/// An entry and what came of asking it.
struct Reached_ {
    Entry_ m_entry;
    Probe_ m_probe;
};

/// Looks for what is wrong with a directory file.
class CheckVerb_ : public Verb_ {
public:
    const VerbText_& text() const override {
        static const VerbText_ s_text = {
            "check",
            "what is wrong with a directory file, and what to do",
            {"Says of each fault FILE:LINE:COLUMN, what is wrong and what to do; nothing",
             "when all is well. Exit codes: 3 with an error or a warning, 4 and 5 when",
             "--connect finds an address that cannot be reached or nobody answering there.",
             "With --format=nagios they are a plugin's: 0 good, 1 warning, 2 error."},
            {"vekmsg check shop.directory", "vekmsg check -D shop.directory --connect --format=text"}};
        return s_text;
    }

    void declare(Arguments_& arguments) override {
        arguments.flag("--connect", m_isConnecting, "ping at each address (--timeout each, 1 s)");
        arguments.choice("--format", {"text", "json", "sarif", "nagios"}, m_format, "how to write it");
        arguments.optionalWord("FILE", m_file, "");
    }

    ExitCode_ run(const CommonOptions_& common, Output_& output) override {
        if (m_file.empty()) m_file = common.directory();
        if (m_format.empty()) m_format = common.m_json == JsonStyle_::None ? "text" : "json";
        if (m_format == "nagios") return runNagios(common, output);
        check(common);
        if (m_format == "sarif") {
            writeSarif(m_file, allFindings(), output);
        } else if (m_format == "json") {
            const JsonStyle_ style = common.m_json == JsonStyle_::None ? JsonStyle_::Short : common.m_json;
            writeJson(m_file, m_findings, style, output);
            for (const Reached_& reached : m_reached) output.write(jsonText(json(reached), style));
        } else {
            writeText(m_file, m_findings, output);
            writeTable(output);
        }
        const std::string summary = summaryOf(m_findings);
        if (!summary.empty() && !common.m_isQuiet) note(m_file + ": " + summary);
        return result();
    }

private:
    void check(const CommonOptions_& common) {
        const DirectoryFile_ directory(m_file);
        m_findings = checkDirectory(m_file, directory);
        if (!m_isConnecting) return;
        for (const Entry_& entry : directory.entries())
            m_reached.push_back({entry, probe(entry, common.timeout(kProbePatience))});
    }

    ExitCode_ runNagios(const CommonOptions_& common, Output_& output) {
        try {
            check(common);
        } catch (const Failure_& failure) {
            output.line(std::string("VEKMSG UNKNOWN - ") + printableText(failure.what()));
            return static_cast<ExitCode_>(kNagiosUnknown);
        }
        const Findings_ findings = allFindings();
        writeNagios(m_file, findings, output);
        return static_cast<ExitCode_>(nagiosCode(findings));
    }

    /// Those of the file and, for formats that know nothing else, those of connecting.
    Findings_ allFindings() const {
        Findings_ findings = m_findings;
        for (const Reached_& reached : m_reached) {
            const Probe_::State_ state = reached.m_probe.m_state;
            if (state != Probe_::NotReachable && state != Probe_::NoAnswer) continue;
            findings.push_back(
                {&directoryRule(wordOf(reached.m_probe)), reached.m_entry.m_line, 1,
                 reached.m_entry.m_name + " at " + reached.m_entry.m_address + ": " + textOf(reached.m_probe),
                 "see whether the component runs and serves its terminal"});
        }
        return findings;
    }

    static Json_ json(const Reached_& reached) {
        Json_ json = jsonOf(reached.m_entry);
        putInto(json, reached.m_probe);
        return json;
    }

    void writeTable(Output_& output) const {
        Table_ table;
        for (const Reached_& reached : m_reached)
            table.add({nameText(reached.m_entry), printableText(reached.m_entry.m_address),
                       output.coloured(colourOf(reached.m_probe), textOf(reached.m_probe))});
        table.writeTo(output);
    }

    ExitCode_ result() const {
        if (nagiosCode(m_findings) != 0) return ExitCode_::Directory;
        ExitCode_ result = ExitCode_::Done;
        for (const Reached_& reached : m_reached) {
            if (reached.m_probe.m_state == Probe_::NotReachable) return ExitCode_::NotReachable;
            if (reached.m_probe.m_state == Probe_::NoAnswer) result = ExitCode_::TimedOut;
        }
        return result;
    }

    bool m_isConnecting = false;
    std::string m_format;
    std::string m_file;
    Findings_ m_findings;
    std::vector<Reached_> m_reached;
};

}  // namespace

UniqueVerb_ createCheckVerb() {
    return std::make_unique<CheckVerb_>();
}
