#ifndef VEKMSG_TESTS_TOOLS_DIRECTORY_TEST_H
#define VEKMSG_TESTS_TOOLS_DIRECTORY_TEST_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/temporary_folder.h"

/// A directory file of the test's own, and local addresses beside it.
class DirectoryTest_ : public testing::Test {
protected:
    std::string directory(const std::vector<std::string>& lines) {
        return m_folder.writeFile("shop.directory", lines);
    }
    std::string address(const std::string& name) const { return m_folder.localAddress(name); }

    TemporaryFolder_ m_folder;
};

#endif
