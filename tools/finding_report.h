#ifndef VEKMSG_TOOLS_FINDING_REPORT_H
#define VEKMSG_TOOLS_FINDING_REPORT_H

#include <string>
#include <vector>

#include "arguments.h"
#include "directory_check.h"
#include "output.h"

using Findings_ = std::vector<Finding_>;

std::size_t countOf(const Findings_& findings, Severity_ severity);

/// "2 errors, 1 warning"; empty for none.
std::string summaryOf(const Findings_& findings);

/// FILE:LINE:COLUMN: error: sentence [rule], and the hint below it.
void writeText(const std::string& file, const Findings_& findings, Output_& output);

/// One document for each finding.
void writeJson(const std::string& file, const Findings_& findings, JsonStyle_ style, Output_& output);

/// SARIF 2.1.0, which code reviews and editors show at its place.
void writeSarif(const std::string& file, const Findings_& findings, Output_& output);

/// One line of state and figures, then the findings, as monitoring takes it from a plugin.
void writeNagios(const std::string& file, const Findings_& findings, Output_& output);

/// The exit code that monitoring expects: 0 for good, 1 for warnings, 2 for errors.
int nagiosCode(const Findings_& findings);

#endif
