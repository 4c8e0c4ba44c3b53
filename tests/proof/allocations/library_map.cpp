#include "proof/allocations/library_map.h"

#include <cxxabi.h>
#include <link.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace {

struct Found_ {
    std::string m_path;
    std::uintptr_t m_base;
    LibraryMap_::Range_ m_code;
};

int look(dl_phdr_info* p_info, std::size_t, void* p_context) {
    if (std::string(p_info->dlpi_name).find("libvekmsg.so") == std::string::npos) return 0;
    auto& found = *static_cast<Found_*>(p_context);
    found.m_path = p_info->dlpi_name;
    found.m_base = p_info->dlpi_addr;
    for (unsigned int i = 0; i < p_info->dlpi_phnum; ++i) {
        const auto& segment = p_info->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
        found.m_code.m_begin = p_info->dlpi_addr + segment.p_vaddr;
        found.m_code.m_end = found.m_code.m_begin + segment.p_memsz;
    }
    return 1;
}

std::string demangled(const std::string& name) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> p_text(
        abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), std::free);
    return status == 0 ? p_text.get() : name;
}

/// Without parameters and the arguments of templates: one line is to hold three.
std::string shortened(std::string name) {
    const std::string unnamed = "(anonymous namespace)::";
    for (auto at = name.find(unnamed); at != std::string::npos; at = name.find(unnamed))
        name.erase(at, unnamed.size());
    std::string kept;
    unsigned int depth = 0;
    for (const char character : name.substr(0, name.find('('))) {
        if (character == '<') ++depth;
        if (depth == 0) kept += character;
        if (character == '>' && depth != 0) --depth;
    }
    return kept;
}

}  // namespace

LibraryMap_::LibraryMap_() {
    Found_ found{"", 0, {0, 0}};
    dl_iterate_phdr(look, &found);
    if (found.m_path.empty()) throw std::runtime_error("the library is not loaded");
    m_base = found.m_base;
    m_code = found.m_code;
    m_functions = ElfFile_(found.m_path).functions();
}

std::vector<LibraryMap_::Range_> LibraryMap_::functionsWith(const std::string& part) const {
    std::vector<Range_> ranges;
    for (const ElfFunction_& function : m_functions) {
        const std::uintptr_t begin = m_base + function.m_address;
        if (function.m_name.find(part) != std::string::npos)
            ranges.push_back({begin, begin + function.m_size});
    }
    return ranges;
}

std::string LibraryMap_::nameAt(std::uintptr_t address) const {
    for (const ElfFunction_& function : m_functions) {
        // A return address may lie directly behind a function that ends with a call.
        if (address > function.m_address && address <= function.m_address + function.m_size)
            return shortened(demangled(function.m_name));
    }
    return "?";
}
