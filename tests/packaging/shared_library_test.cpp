#include <cxxabi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "packaging/elf_file.h"

namespace {

using Names_ = std::set<std::string>;

/// What the build is expected to export.
struct ExportList_ {
    Names_ m_required;
    Names_ m_allowed;
};

// std::size_t has another name on 32 bit; the list is written for 64.
std::string withoutWordSize(std::string name) {
    const std::string wide = "unsigned long";
    for (std::size_t place; (place = name.find(wide)) != std::string::npos;)
        name.replace(place, wide.size(), "unsigned int");
    return name;
}

ExportList_ readExportList() {
    std::ifstream stream(VEKMSG_EXPORT_LIST);
    ExportList_ list;
    for (std::string line; std::getline(stream, line);) {
        if (line.empty() || line[0] == '#') continue;
        const bool isOptional = line.compare(0, 2, "? ") == 0;
        const std::string name = withoutWordSize(isOptional ? line.substr(2) : line);
        list.m_allowed.insert(name);
        if (!isOptional) list.m_required.insert(name);
    }
    return list;
}

std::string demangled(const std::string& name) {
    int status = 0;
    char* p_text = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
    const std::string text = status == 0 ? p_text : name;
    std::free(p_text);
    return text;
}

Names_ difference(const Names_& from, const Names_& taken) {
    Names_ rest;
    std::set_difference(from.begin(), from.end(), taken.begin(), taken.end(),
                        std::inserter(rest, rest.begin()));
    return rest;
}

const Names_ g_systemLibraries = {"libstdc++.so.6",       "libm.so.6",    "libgcc_s.so.1", "libc.so.6",
                                  "ld-linux-x86-64.so.2", "ld-linux.so.2"};

class SharedLibrary : public testing::Test {
protected:
    SharedLibrary() : m_library(VEKMSG_SHARED_LIBRARY) {}

    ElfFile_ m_library;
};

}  // namespace

TEST_F(SharedLibrary, exportsExactlyTheListedNames) {
    Names_ exported;
    for (const ElfSymbol_& symbol : m_library.dynamicSymbols())
        if (symbol.m_isDefined && !symbol.m_isVersionNode)
            exported.insert(withoutWordSize(demangled(symbol.m_name)));
    const ExportList_ list = readExportList();

    EXPECT_FALSE(list.m_required.empty());
    EXPECT_EQ(difference(exported, list.m_allowed), Names_{});
    EXPECT_EQ(difference(list.m_required, exported), Names_{});
}

TEST_F(SharedLibrary, everyExportedNameBearsTheVersionNode) {
    unsigned int exported = 0;
    for (const ElfSymbol_& symbol : m_library.dynamicSymbols()) {
        if (!symbol.m_isDefined || symbol.m_isVersionNode) continue;
        EXPECT_EQ(symbol.m_version, "VEKMSG_1") << symbol.m_name;
        ++exported;
    }
    EXPECT_GT(exported, 0U);
}

TEST_F(SharedLibrary, itsNameCarriesTheMajorVersion) {
    EXPECT_EQ(m_library.dynamicTexts(DT_SONAME), (std::vector<std::string>{"libvekmsg.so.1"}));
}

TEST_F(SharedLibrary, needsTheStandardLibraryAlone) {
    const std::vector<std::string> needed = m_library.dynamicTexts(DT_NEEDED);

    EXPECT_EQ(difference(Names_(needed.begin(), needed.end()), g_systemLibraries), Names_{});
}

TEST_F(SharedLibrary, everyNameThatItTakesComesFromTheStandardLibrary) {
    unsigned int taken = 0;
    for (const ElfSymbol_& symbol : m_library.dynamicSymbols()) {
        if (symbol.m_isDefined || symbol.m_isWeak || symbol.m_name.empty()) continue;
        EXPECT_EQ(g_systemLibraries.count(symbol.m_library), 1U)
            << symbol.m_name << " from \"" << symbol.m_library << '"';
        ++taken;
    }
    EXPECT_GT(taken, 0U);
}

TEST_F(SharedLibrary, isResolvedAndSealedWhenItIsLoaded) {
    EXPECT_EQ(m_library.segmentFlags(PT_GNU_RELRO).size(), 1U);
    ElfW(Xword) flags = 0;
    for (const auto value : m_library.dynamicValues(DT_FLAGS)) flags |= value;
    EXPECT_NE(flags & DF_BIND_NOW, 0U);
}

TEST_F(SharedLibrary, wantsNoExecutableStack) {
    const std::vector<unsigned int> flags = m_library.segmentFlags(PT_GNU_STACK);

    ASSERT_EQ(flags.size(), 1U);
    EXPECT_EQ(flags[0] & PF_X, 0U);
}

TEST_F(SharedLibrary, carriesNoSearchPath) {
    EXPECT_TRUE(m_library.dynamicValues(DT_RPATH).empty());
    EXPECT_TRUE(m_library.dynamicValues(DT_RUNPATH).empty());
}

TEST_F(SharedLibrary, leavesItsCodeAsItIsInTheFile) {
    EXPECT_TRUE(m_library.dynamicValues(DT_TEXTREL).empty());
    for (const auto value : m_library.dynamicValues(DT_FLAGS)) EXPECT_EQ(value & DF_TEXTREL, 0U);
}
