#ifndef VEKMSG_TOOLS_OUTPUT_H
#define VEKMSG_TOOLS_OUTPUT_H

#include <initializer_list>
#include <string>
#include <vector>

enum class Colour_ { None, Bold, Red, Yellow, Green };

/// Standard output, where results go and nothing else.
///
/// Writes are gathered; when following, each line leaves at once. A reader that has gone away ends the
/// command without a word, as it ends cat: see OutputClosed_.
class Output_ {
public:
    Output_();
    ~Output_();
    Output_(const Output_&) = delete;
    Output_& operator=(const Output_&) = delete;

    /// From now on every line is written when it is complete.
    void follow() { m_isFollowing = true; }

    void write(const std::string& text);
    void line(const std::string& text) { write(text + '\n'); }

    /// Throws OutputClosed_ when nobody reads any more, and a Failure_ when it cannot be written otherwise.
    void flush();

    bool isTerminal() const { return m_isTerminal; }

    /// The text in colour where a person looks at a terminal and has not set NO_COLOR; else as it is.
    std::string coloured(Colour_ colour, const std::string& text) const;

private:
    std::string m_waiting;
    bool m_isFollowing = false;
    bool m_isTerminal;
    bool m_isColoured;
};

/// Thrown when the reader of standard output has gone away.
struct OutputClosed_ {};

/// A line for people on standard error, behind the command's name. Control bytes, which may come from a peer
/// or a file, are shown as \xNN.
void note(const std::string& text);

/// The text with its control bytes shown as \xNN. Line feeds and tabs are control bytes too.
std::string printableText(const std::string& text);

/// "1 error", "2 errors".
std::string counted(std::size_t count, const std::string& noun);

/// Lines with columns: every column but the last is as wide as its widest cell.
class Table_ {
public:
    using Row_ = std::initializer_list<std::string>;
    void add(Row_ cells);
    void writeTo(Output_& output) const;

private:
    std::vector<std::vector<std::string>> m_rows;
};

#endif
