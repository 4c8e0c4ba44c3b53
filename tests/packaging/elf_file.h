#ifndef VEKMSG_TESTS_ELF_FILE_H
#define VEKMSG_TESTS_ELF_FILE_H

#include <elf.h>
#include <link.h>

#include <string>
#include <vector>

/// One entry of a library's dynamic symbol table.
struct ElfSymbol_ {
    std::string m_name;
    std::string m_version;  // the version node that defines or requires it; empty: none
    std::string m_library;  // for a required version: the library that has to define it
    bool m_isDefined;
    bool m_isWeak;
    bool m_isVersionNode;
};

/// One section of a library.
struct ElfSection_ {
    std::string m_name;
    ElfW(Addr) m_address;
    std::size_t m_size;
    bool m_isWritable;
};

/// One function of a library, local ones included.
struct ElfFunction_ {
    std::string m_name;  // mangled
    ElfW(Addr) m_address;
    std::size_t m_size;
};

/// Reads what a shared library of this program's own word size says of itself. Throws when the file is none.
class ElfFile_ {
public:
    explicit ElfFile_(const std::string& path);

    std::vector<ElfSection_> sections() const;
    std::vector<ElfSymbol_> dynamicSymbols() const;

    /// From the full symbol table, which a stripped library lacks.
    std::vector<ElfFunction_> functions() const;

    /// The values of all dynamic entries with this tag; for DT_NEEDED and its like see `dynamicTexts`.
    std::vector<ElfW(Xword)> dynamicValues(long tag) const;
    std::vector<std::string> dynamicTexts(long tag) const;

    /// The flags of all program headers of this type.
    std::vector<unsigned int> segmentFlags(unsigned int type) const;

private:
    template <class T>
    const T& at(std::size_t offset) const;
    template <class T>
    std::vector<T> table(const ElfW(Shdr) & section) const;
    const ElfW(Shdr) * findSection(unsigned int type) const;
    std::string text(const ElfW(Shdr) & strings, std::size_t offset) const;
    const ElfW(Shdr) & linkOf(const ElfW(Shdr) & section) const;
    void nameVersions(std::vector<ElfSymbol_>& symbols, const std::vector<ElfW(Half)>& indices) const;

    std::string m_bytes;
    std::vector<ElfW(Shdr)> m_sections;
};

#endif
