#ifndef VEKMSG_TOOLS_RECORDS_H
#define VEKMSG_TOOLS_RECORDS_H

#include <string>
#include <vector>

/// What the library has to say besides its results. Its records are notes on standard error; -v lets all of
/// them pass, -q none.
void showRecords(bool isQuiet, bool isVerbose);

/// Keeps the library's errors and warnings from standard error while it lives, for who wants to put them in
/// words of his own. With -v the records are shown all the same. Such objects may be nested.
class CaughtRecords_ {
public:
    CaughtRecords_();
    ~CaughtRecords_();
    CaughtRecords_(const CaughtRecords_&) = delete;
    CaughtRecords_& operator=(const CaughtRecords_&) = delete;

    const std::vector<std::string>& texts() const { return m_texts; }

    /// The texts since the last call.
    std::vector<std::string> take();

    /// The last text, or `otherwise` when there is none.
    std::string last(const std::string& otherwise) const;

    void add(const std::string& text) { m_texts.push_back(text); }

private:
    CaughtRecords_* m_p_outer;
    std::vector<std::string> m_texts;
};

/// Keeps the library from making records while it lives, -v or not: for questions that may fail.
class NoRecords_ {
public:
    NoRecords_();
    ~NoRecords_();
    NoRecords_(const NoRecords_&) = delete;
    NoRecords_& operator=(const NoRecords_&) = delete;
};

#endif
