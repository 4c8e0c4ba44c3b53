#ifndef VEKMSG_TESTS_PROOF_PROGRAM_H
#define VEKMSG_TESTS_PROOF_PROGRAM_H

#include <string>
#include <vector>

/// What a program of scripts/proof counts and finds, and the file that it leaves for the report.
class ProofReport_ {
public:
    void addFigure(const std::string& name, unsigned long long value);
    void addFigure(const std::string& name, unsigned long long value, unsigned long long of);
    void addFinding(const std::string& sentence);  // what must not be
    void addRemark(const std::string& sentence);

    /// Writes the JSON file. Returns the program's exit code: 0 without findings, 1 with some, 2 if the file
    /// cannot be written.
    int write(const std::string& path) const;

private:
    struct Figure_ {
        std::string m_name;
        unsigned long long m_value;
        bool m_hasWhole;
        unsigned long long m_whole;
    };
    std::vector<Figure_> m_figures;
    std::vector<std::string> m_findings;
    std::vector<std::string> m_remarks;
};

/// The command line that all programs share: `[--quick] [--list] [--json FILE]`. Ends the program with 2 on
/// anything else.
struct ProofOptions_ {
    ProofOptions_(int argc, char** argv);

    bool m_isQuick = false;    // a share of the cases, which takes seconds
    bool m_isListing = false;  // prints every case on standard output
    std::string m_json;
};

/// Shows how far a program is, on standard error: at most a line a second, "NAME: DONE of WHOLE".
void showProgress(const std::string& name, unsigned long long done, unsigned long long whole);

#endif
