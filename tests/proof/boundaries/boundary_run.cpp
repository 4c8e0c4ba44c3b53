#include "proof/boundaries/boundary_run.h"

namespace {

constexpr unsigned int kMostFindings = 20;

// What the quick run takes: all of the first and last cases, all about the greatest sizes, and this many
// others.
constexpr unsigned int kEdge = 48;
constexpr unsigned int kFirstGreat = 9380;
constexpr unsigned int kLastGreat = 9415;
constexpr unsigned int kOthers = 2000;

}  // namespace

bool BoundaryRun_::isInShare(unsigned int number, unsigned int whole) {
    if (number < kEdge || number + kEdge >= whole) return true;
    if (number >= kFirstGreat && number <= kLastGreat) return true;
    return number % (whole / kOthers | 1U) == 0;  // an odd step, so that all low bits change
}

void BoundaryRun_::addDifference(const std::string& sentence) {
    if (++m_differences <= kMostFindings) m_report.addFinding(sentence);
}

void BoundaryRun_::beginFigure(const std::string& name) {
    m_figures.push_back({name, 0, 0});
}

int BoundaryRun_::finish() {
    if (m_differences > kMostFindings)
        m_report.addFinding(std::to_string(m_differences - kMostFindings) + " more differences");
    for (const Figure_& figure : m_figures) m_report.addFigure(figure.m_name, figure.m_done, figure.m_whole);
    const SideBySide_::Compared_& compared = m_reader.compared();
    m_report.addFigure("streams", compared.m_streams);
    m_report.addFigure("pieces that the library was given", compared.m_pieces);
    m_report.addFigure("messages and payloads compared", compared.m_messages);
    m_report.addFigure("records compared", compared.m_records);
    m_report.addFigure("cases that differ from the page", m_differences);
    return m_report.write(m_options.m_json);
}
