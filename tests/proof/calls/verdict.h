#ifndef VEKMSG_TESTS_PROOF_VERDICT_H
#define VEKMSG_TESTS_PROOF_VERDICT_H

#include <string>
#include <vector>

/// What turned out wrong in one case.
class Verdict_ {
public:
    void expect(bool holds, const std::string& what) {
        if (!holds) m_faults.push_back(what);
    }
    bool isGood() const { return m_faults.empty(); }
    const std::vector<std::string>& faults() const { return m_faults; }

private:
    std::vector<std::string> m_faults;
};

#endif
