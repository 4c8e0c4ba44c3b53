#include "input.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "exit_code.h"

std::string readInput(const std::string& path) {
    std::ostringstream text;
    if (path.empty() || path == "-") {
        text << std::cin.rdbuf();
        return text.str();
    }
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open())
        throw Failure_(ExitCode_::BadData, "cannot read " + path + ": " + std::strerror(errno));
    text << file.rdbuf();
    if (file.bad() || (text.fail() && file.peek() != std::ifstream::traits_type::eof()))
        throw Failure_(ExitCode_::BadData, "cannot read " + path + ": it is a folder, or reading fails");
    return text.str();
}
