#include "packaging/elf_file.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace {

constexpr unsigned int kHiddenVersion = 0x8000;

std::string readFile(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) throw std::runtime_error("cannot read " + path);
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

}  // namespace

template <class T>
const T& ElfFile_::at(std::size_t offset) const {
    if (offset > m_bytes.size() || sizeof(T) > m_bytes.size() - offset)
        throw std::runtime_error("truncated library");
    return *reinterpret_cast<const T*>(m_bytes.data() + offset);
}

template <class T>
std::vector<T> ElfFile_::table(const ElfW(Shdr) & section) const {
    std::vector<T> entries;
    for (std::size_t i = 0; i < section.sh_size / sizeof(T); ++i)
        entries.push_back(at<T>(section.sh_offset + i * sizeof(T)));
    return entries;
}

ElfFile_::ElfFile_(const std::string& path) : m_bytes(readFile(path)) {
    const auto& header = at<ElfW(Ehdr)>(0);
    constexpr unsigned char ownClass = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ownClass)
        throw std::runtime_error(path + " is no library of this word size");
    for (unsigned int i = 0; i < header.e_shnum; ++i)
        m_sections.push_back(at<ElfW(Shdr)>(header.e_shoff + i * sizeof(ElfW(Shdr))));
}

std::string ElfFile_::text(const ElfW(Shdr) & strings, std::size_t offset) const {
    std::string text;
    for (std::size_t i = strings.sh_offset + offset; at<char>(i) != '\0'; ++i) text += at<char>(i);
    return text;
}

const ElfW(Shdr) & ElfFile_::linkOf(const ElfW(Shdr) & section) const {
    return m_sections.at(section.sh_link);
}

const ElfW(Shdr) * ElfFile_::findSection(unsigned int type) const {
    for (const auto& section : m_sections)
        if (section.sh_type == type) return &section;
    return nullptr;
}

std::vector<ElfSection_> ElfFile_::sections() const {
    const auto& names = m_sections.at(at<ElfW(Ehdr)>(0).e_shstrndx);
    std::vector<ElfSection_> sections;
    for (const auto& section : m_sections)
        sections.push_back({text(names, section.sh_name), section.sh_addr, section.sh_size,
                            (section.sh_flags & SHF_WRITE) != 0});
    return sections;
}

std::vector<ElfSymbol_> ElfFile_::dynamicSymbols() const {
    const auto* p_section = findSection(SHT_DYNSYM);
    const auto* p_versions = findSection(SHT_GNU_versym);
    if (p_section == nullptr || p_versions == nullptr) throw std::runtime_error("no versioned symbols");
    std::vector<ElfSymbol_> symbols;
    for (const auto& entry : table<ElfW(Sym)>(*p_section)) {
        symbols.push_back({text(linkOf(*p_section), entry.st_name), "", "", entry.st_shndx != SHN_UNDEF,
                           ELF32_ST_BIND(entry.st_info) == STB_WEAK, entry.st_shndx == SHN_ABS});
    }
    nameVersions(symbols, table<ElfW(Half)>(*p_versions));
    return symbols;
}

std::vector<ElfFunction_> ElfFile_::functions() const {
    const auto* p_section = findSection(SHT_SYMTAB);
    if (p_section == nullptr) throw std::runtime_error("no symbol table");
    std::vector<ElfFunction_> functions;
    for (const auto& entry : table<ElfW(Sym)>(*p_section)) {
        if (ELF32_ST_TYPE(entry.st_info) == STT_FUNC && entry.st_shndx != SHN_UNDEF)
            functions.push_back({text(linkOf(*p_section), entry.st_name), entry.st_value, entry.st_size});
    }
    return functions;
}

void ElfFile_::nameVersions(std::vector<ElfSymbol_>& symbols, const std::vector<ElfW(Half)>& indices) const {
    const auto name = [&](unsigned int index, const std::string& version, const std::string& library) {
        for (std::size_t i = 0; i < symbols.size(); ++i) {
            if ((indices.at(i) & ~kHiddenVersion) != index) continue;
            symbols[i].m_version = version;
            symbols[i].m_library = library;
        }
    };
    if (const auto* p_defined = findSection(SHT_GNU_verdef)) {
        std::size_t offset = p_defined->sh_offset;
        for (unsigned int i = 0; i < p_defined->sh_info; ++i) {
            const auto& node = at<ElfW(Verdef)>(offset);
            const auto& first = at<ElfW(Verdaux)>(offset + node.vd_aux);
            if ((node.vd_flags & VER_FLG_BASE) == 0)
                name(node.vd_ndx, text(linkOf(*p_defined), first.vda_name), "");
            offset += node.vd_next;
        }
    }
    if (const auto* p_needed = findSection(SHT_GNU_verneed)) {
        std::size_t offset = p_needed->sh_offset;
        for (unsigned int i = 0; i < p_needed->sh_info; ++i) {
            const auto& library = at<ElfW(Verneed)>(offset);
            std::size_t inner = offset + library.vn_aux;
            for (unsigned int j = 0; j < library.vn_cnt; ++j) {
                const auto& version = at<ElfW(Vernaux)>(inner);
                name(version.vna_other, text(linkOf(*p_needed), version.vna_name),
                     text(linkOf(*p_needed), library.vn_file));
                inner += version.vna_next;
            }
            offset += library.vn_next;
        }
    }
}

std::vector<ElfW(Xword)> ElfFile_::dynamicValues(long tag) const {
    std::vector<ElfW(Xword)> values;
    const auto* p_section = findSection(SHT_DYNAMIC);
    if (p_section == nullptr) throw std::runtime_error("no dynamic section");
    for (const auto& entry : table<ElfW(Dyn)>(*p_section)) {
        if (entry.d_tag == DT_NULL) break;
        if (entry.d_tag == tag) values.push_back(entry.d_un.d_val);
    }
    return values;
}

std::vector<std::string> ElfFile_::dynamicTexts(long tag) const {
    std::vector<std::string> texts;
    for (const auto value : dynamicValues(tag))
        texts.push_back(text(linkOf(*findSection(SHT_DYNAMIC)), value));
    return texts;
}

std::vector<unsigned int> ElfFile_::segmentFlags(unsigned int type) const {
    const auto& header = at<ElfW(Ehdr)>(0);
    std::vector<unsigned int> flags;
    for (unsigned int i = 0; i < header.e_phnum; ++i) {
        const auto& segment = at<ElfW(Phdr)>(header.e_phoff + i * sizeof(ElfW(Phdr)));
        if (segment.p_type == type) flags.push_back(segment.p_flags);
    }
    return flags;
}
