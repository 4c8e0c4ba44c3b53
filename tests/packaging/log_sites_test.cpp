#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "packaging/elf_file.h"
#include "vekmsg/log.h"

namespace {

const std::string g_sectionPrefix = "vekmsg_log_";

/// Sites of one module by severity.
struct Count_ {
    unsigned int m_errors = 0;
    unsigned int m_warnings = 0;
    unsigned int m_infos = 0;
    unsigned int m_debugs = 0;
    unsigned int m_others = 0;

    unsigned int& of(unsigned int severity) {
        switch (severity) {
            case 3:
                return m_errors;
            case 4:
                return m_warnings;
            case 6:
                return m_infos;
            case 7:
                return m_debugs;
            default:
                return m_others;
        }
    }
    bool operator==(const Count_& other) const {
        return m_errors == other.m_errors && m_warnings == other.m_warnings && m_infos == other.m_infos &&
               m_debugs == other.m_debugs && m_others == other.m_others;
    }
};

std::ostream& operator<<(std::ostream& stream, const Count_& count) {
    return stream << count.m_errors << " errors, " << count.m_warnings << " warnings, " << count.m_infos
                  << " informational, " << count.m_debugs << " debug, " << count.m_others << " others";
}

std::vector<ElfSection_> siteSections() {
    std::vector<ElfSection_> sections = ElfFile_(VEKMSG_SHARED_LIBRARY).sections();
    sections.erase(std::remove_if(sections.begin(), sections.end(),
                                  [](const ElfSection_& section) {
                                      return section.m_name.compare(0, g_sectionPrefix.size(),
                                                                    g_sectionPrefix) != 0;
                                  }),
                   sections.end());
    return sections;
}

struct Closing_ {
    void operator()(void* p_library) const { dlclose(p_library); }
};

/// The sites of the finished shared library, as they lie in memory once it is loaded.
class LogSites : public testing::Test {
protected:
    void SetUp() override {
        m_p_library.reset(dlopen(VEKMSG_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL));
        ASSERT_TRUE(m_p_library) << dlerror();
        struct link_map* p_map = nullptr;
        ASSERT_EQ(dlinfo(m_p_library.get(), RTLD_DI_LINKMAP, &p_map), 0);
        for (const ElfSection_& section : siteSections()) {
            ASSERT_EQ(section.m_size % sizeof(LogSite), 0U) << section.m_name;
            const auto* p_first = reinterpret_cast<const LogSite*>(p_map->l_addr + section.m_address);
            m_sites[section.m_name.substr(g_sectionPrefix.size())].assign(
                p_first, p_first + section.m_size / sizeof(LogSite));
        }
    }

    std::unique_ptr<void, Closing_> m_p_library;
    std::map<std::string, std::vector<LogSite>> m_sites;  // by module
};

}  // namespace

TEST_F(LogSites, everyModuleHasItsSitesOfEachSeverity) {
    const std::map<std::string, Count_> expected = {
        {"vekmsg_binary", {58, 5, 0, 0, 0}}, {"vek_socket", {45, 10, 0, 5, 0}},
        {"name_directory", {5, 2, 0, 0, 0}}, {"vekmsg_impl", {59, 23, 1, 7, 0}},
        {"vekmsg", {11, 0, 0, 0, 0}},        {"c_binding", {43, 0, 0, 0, 0}}};

    std::map<std::string, Count_> found;
    for (const auto& [module, sites] : m_sites)
        for (const LogSite& site : sites) ++found[module].of(site.moduleAndSeverity & 0xFFFF);

    EXPECT_EQ(found, expected);
}

TEST_F(LogSites, theLibraryHas274) {
    Count_ found;
    for (const auto& [module, sites] : m_sites)
        for (const LogSite& site : sites) ++found.of(site.moduleAndSeverity & 0xFFFF);

    EXPECT_EQ(found, (Count_{221, 40, 1, 12, 0}));
}

TEST_F(LogSites, eachNamesModuleSourceSignatureAndLine) {
    unsigned int seen = 0;
    for (const auto& [module, sites] : m_sites) {
        for (const LogSite& site : sites) {
            EXPECT_EQ(site.moduleAndSeverity >> 16, 0x129U);
            EXPECT_STREQ(site.p_template, "$fmt");
            EXPECT_EQ(site.p_sourceName, module + ".cpp");
            EXPECT_NE(std::strchr(site.p_signature, '('), nullptr) << site.p_signature;
            EXPECT_GT(site.line, 0U);
            for (const uintptr_t word : site.reserved) EXPECT_EQ(word, 0U);
            ++seen;
        }
    }
    EXPECT_GT(seen, 0U);
}

TEST_F(LogSites, lieInMemoryThatASinkMayWrite) {
    EXPECT_EQ(siteSections().size(), 6U);
    for (const ElfSection_& section : siteSections()) EXPECT_TRUE(section.m_isWritable) << section.m_name;
}

TEST_F(LogSites, noneStandsInALambda) {
    unsigned int seen = 0;
    for (const auto& [module, sites] : m_sites) {
        for (const LogSite& site : sites) {
            EXPECT_EQ(std::string(site.p_signature).find("lambda"), std::string::npos) << site.p_signature;
            EXPECT_EQ(std::string(site.p_signature).find("[with "), std::string::npos) << site.p_signature;
            ++seen;
        }
    }
    EXPECT_GT(seen, 0U);
}
