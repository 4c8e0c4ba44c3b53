#ifndef VEKMSG_TESTS_PROOF_LIBRARY_MAP_H
#define VEKMSG_TESTS_PROOF_LIBRARY_MAP_H

#include <cstdint>
#include <string>
#include <vector>

#include "packaging/elf_file.h"

/// Where the shared library lies in this process, and what its functions are called.
class LibraryMap_ {
public:
    struct Range_ {
        std::uintptr_t m_begin;
        std::uintptr_t m_end;

        bool has(std::uintptr_t address) const { return address >= m_begin && address < m_end; }
    };

    /// Throws when the process has not loaded the library.
    LibraryMap_();

    /// Its code, in this process.
    const Range_& code() const { return m_code; }

    /// Its start: an address less this is what a listing of the file shows.
    std::uintptr_t base() const { return m_base; }

    /// The functions, in this process, with `part` in their mangled names.
    std::vector<Range_> functionsWith(const std::string& part) const;

    /// The name of the function around an address of the file.
    std::string nameAt(std::uintptr_t address) const;

private:
    std::uintptr_t m_base = 0;
    Range_ m_code{0, 0};
    std::vector<ElfFunction_> m_functions;
};

#endif
