#include "finding_report.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "json_text.h"
#include "vekmsg/version.h"

namespace {

const char* nameOf(Severity_ severity) {
    switch (severity) {
        case Severity_::Error:
            return "error";
        case Severity_::Warning:
            return "warning";
        default:
            return "note";
    }
}

Colour_ colourOf(Severity_ severity) {
    if (severity == Severity_::Note) return Colour_::Bold;
    return severity == Severity_::Error ? Colour_::Red : Colour_::Yellow;
}

std::string placeOf(const std::string& file, const Finding_& finding) {
    return file + ':' + std::to_string(finding.m_line) + ':' + std::to_string(finding.m_column) + ": ";
}

Json_ sarifRules() {
    Json_ rules = Json_::array();
    for (const Rule_& rule : directoryRules()) {
        Json_ json;
        json["id"] = rule.m_p_name;
        json["shortDescription"]["text"] = rule.m_p_summary;
        json["defaultConfiguration"]["level"] = nameOf(rule.m_severity);
        rules.push_back(json);
    }
    return rules;
}

Json_ sarifResult(const std::string& file, const Finding_& finding) {
    Json_ place;
    place["artifactLocation"]["uri"] = readableText(file);
    place["region"]["startLine"] = finding.m_line;
    place["region"]["startColumn"] = finding.m_column;
    Json_ result;
    result["ruleId"] = finding.m_p_rule->m_p_name;
    result["level"] = nameOf(finding.m_p_rule->m_severity);
    result["message"]["text"] = readableText(finding.m_text + ": " + finding.m_hint);
    result["locations"] = Json_::array({Json_{{"physicalLocation", place}}});
    return result;
}

}  // namespace

std::size_t countOf(const Findings_& findings, Severity_ severity) {
    return static_cast<std::size_t>(std::count_if(
        findings.begin(), findings.end(),
        [severity](const Finding_& finding) { return finding.m_p_rule->m_severity == severity; }));
}

std::string summaryOf(const Findings_& findings) {
    std::string summary;
    for (const Severity_ severity : {Severity_::Error, Severity_::Warning, Severity_::Note}) {
        const std::size_t count = countOf(findings, severity);
        if (count == 0) continue;
        if (!summary.empty()) summary += ", ";
        summary += counted(count, nameOf(severity));
    }
    return summary;
}

void writeText(const std::string& file, const Findings_& findings, Output_& output) {
    for (const Finding_& finding : findings) {
        const Severity_ severity = finding.m_p_rule->m_severity;
        output.line(printableText(placeOf(file, finding)) +
                    output.coloured(colourOf(severity), nameOf(severity)) + ": " +
                    printableText(finding.m_text) + " [" + finding.m_p_rule->m_p_name + ']');
        output.line("    hint: " + printableText(finding.m_hint));
    }
}

void writeJson(const std::string& file, const Findings_& findings, JsonStyle_ style, Output_& output) {
    for (const Finding_& finding : findings) {
        Json_ json;
        json["file"] = readableText(file);
        json["line"] = finding.m_line;
        json["column"] = finding.m_column;
        json["severity"] = nameOf(finding.m_p_rule->m_severity);
        json["rule"] = finding.m_p_rule->m_p_name;
        json["text"] = readableText(finding.m_text);
        json["hint"] = readableText(finding.m_hint);
        output.write(jsonText(json, style));
    }
}

void writeSarif(const std::string& file, const Findings_& findings, Output_& output) {
    Json_ driver;
    driver["name"] = "vekmsg check";
    driver["version"] = std::to_string(VEKMSG_VERSION_MAJOR) + '.' + std::to_string(VEKMSG_VERSION_MINOR) +
                        '.' + std::to_string(VEKMSG_VERSION_PATCH);
    driver["rules"] = sarifRules();
    Json_ run;
    run["tool"]["driver"] = driver;
    run["results"] = Json_::array();
    for (const Finding_& finding : findings) run["results"].push_back(sarifResult(file, finding));
    Json_ log;
    log["$schema"] = "https://json.schemastore.org/sarif-2.1.0.json";
    log["version"] = "2.1.0";
    log["runs"] = Json_::array({run});
    output.write(jsonText(log, JsonStyle_::Pretty));
}

int nagiosCode(const Findings_& findings) {
    if (countOf(findings, Severity_::Error) != 0) return 2;
    return countOf(findings, Severity_::Warning) != 0 ? 1 : 0;
}

void writeNagios(const std::string& file, const Findings_& findings, Output_& output) {
    static const char* const s_states[] = {"OK", "WARNING", "CRITICAL"};
    const std::string summary = summaryOf(findings);
    output.line(std::string("VEKMSG ") + s_states[nagiosCode(findings)] + " - " + printableText(file) + ": " +
                (summary.empty() ? "no faults" : summary) +
                " | errors=" + std::to_string(countOf(findings, Severity_::Error)) +
                " warnings=" + std::to_string(countOf(findings, Severity_::Warning)));
    for (const Finding_& finding : findings)
        output.line(printableText(placeOf(file, finding) + finding.m_text) + " [" +
                    finding.m_p_rule->m_p_name + ']');
}
