#ifndef VEKMSG_TESTS_BOUNDARY_SAMPLES_H
#define VEKMSG_TESTS_BOUNDARY_SAMPLES_H

#include <string>
#include <vector>

/// Bytes that are cut, changed and truncated. They are for "sensor" and come from "panel", as in the worked
/// example of the format page.
namespace samples {

struct Sample_ {
    std::string m_name;
    std::string m_bytes;
};
using Samples_ = std::vector<Sample_>;

constexpr unsigned int kLongestBlock = 9396;  // the greatest payload of a block

/// The bytes of one of the format page's blocks.
const std::string& ofPage(const std::string& name);

/// A message for the reader, from "panel".
std::string message(const std::string& payload, const std::string& schema = "urn:x");

/// The message with all texts and the payload as short as a writer can make them.
std::string shortestMessage();

/// The message that fills a block. What fills it are header items again and again, so that a length that
/// leads anywhere into it may be followed by good ones.
std::string greatestMessage();

/// Elements of every type, short, long and odd ones, and trees of them.
Samples_ elements();

/// Messages, as the payload of their block.
Samples_ messages();

/// Whole streams that the reader has opened.
Samples_ openedStreams();

/// Whole streams that it has accepted: blocks of every kind, good, skipped and refused ones.
Samples_ streams();

}  // namespace samples

#endif
