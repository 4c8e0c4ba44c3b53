#include "proof/proof_program.h"

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>

namespace {

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char character : text) {
        if (character == '"' || character == '\\') {
            result += '\\';
            result += character;
        } else if (static_cast<unsigned char>(character) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned char>(character));
            result += escaped;
        } else {
            result += character;
        }
    }
    return result + '"';
}

std::string list(const std::vector<std::string>& sentences) {
    std::string result = "[";
    for (const std::string& sentence : sentences)
        result += (result.size() > 1 ? ", " : "") + quoted(sentence);
    return result + ']';
}

}  // namespace

void ProofReport_::addFigure(const std::string& name, unsigned long long value) {
    m_figures.push_back({name, value, false, 0});
}

void ProofReport_::addFigure(const std::string& name, unsigned long long value, unsigned long long of) {
    m_figures.push_back({name, value, true, of});
}

void ProofReport_::addFinding(const std::string& sentence) {
    m_findings.push_back(sentence);
}

void ProofReport_::addRemark(const std::string& sentence) {
    m_remarks.push_back(sentence);
}

int ProofReport_::write(const std::string& path) const {
    std::ofstream file(path);
    file << "{\"figures\": [";
    const char* p_separator = "";
    for (const Figure_& figure : m_figures) {
        file << p_separator << "{\"name\": " << quoted(figure.m_name) << ", \"value\": " << figure.m_value;
        if (figure.m_hasWhole) file << ", \"of\": " << figure.m_whole;
        file << '}';
        p_separator = ",\n ";
    }
    file << "],\n\"findings\": " << list(m_findings) << ",\n\"remarks\": " << list(m_remarks) << "}\n";
    file.close();
    for (const std::string& finding : m_findings) std::cerr << "finding: " << finding << '\n';
    if (!file) {
        std::cerr << path << " cannot be written\n";
        return 2;
    }
    return m_findings.empty() ? 0 : 1;
}

ProofOptions_::ProofOptions_(int argc, char** argv) {
    for (int index = 1; index < argc; ++index) {
        if (std::strcmp(argv[index], "--quick") == 0) {
            m_isQuick = true;
        } else if (std::strcmp(argv[index], "--list") == 0) {
            m_isListing = true;
        } else if (std::strcmp(argv[index], "--json") == 0 && index + 1 < argc) {
            m_json = argv[++index];
        } else {
            std::cerr << "usage: " << argv[0] << " [--quick] [--list] [--json FILE]\n";
            std::exit(2);
        }
    }
    if (m_json.empty()) m_json = "/dev/stdout";
}

void showProgress(const std::string& name, unsigned long long done, unsigned long long whole) {
    static time_t s_shown = 0;
    const time_t now = time(nullptr);
    if (now == s_shown && done != whole) return;
    s_shown = now;
    std::cerr << name << ": " << done << " of " << whole << '\n';
}
