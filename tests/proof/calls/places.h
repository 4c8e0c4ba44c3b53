#ifndef VEKMSG_TESTS_PROOF_PLACES_H
#define VEKMSG_TESTS_PROOF_PLACES_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "proof/calls/witness.h"

/// One place in the library's code that calls the system, as the disassembler shows it.
struct CallSite_ {
    std::string m_call;       // "fcntl"
    std::string m_function;   // "VekSocket_::listen(unsigned int)"
    std::uintptr_t m_at;      // of the instruction, relative to the library
    std::uintptr_t m_return;  // of the one behind it
    bool m_isUsed;            // false: nothing in the library leads to its function
};

/// The library as it is loaded into this program.
class LoadedLibrary_ {
public:
    /// Reads the disassembly. Throws when the library is not loaded or cannot be read.
    explicit LoadedLibrary_(const std::string& name);

    const std::string& path() const { return m_path; }

    /// All places that call one of these functions.
    const std::vector<CallSite_>& callSites() const { return m_callSites; }

    /// The place that a call returning to `p_return` was made from, or null.
    const CallSite_* siteOf(const void* p_return) const;

    /// What the library needs of the C library and this program does not take over, except for functions that
    /// are known to make no system call.
    std::vector<std::string> callsNotTakenOver() const;

private:
    void readDisassembly();
    void readLine(const std::string& line);
    void addCallSite(const std::string& name, std::uintptr_t at);
    void findUsed();
    bool isEntry(std::uintptr_t function) const;

    std::string m_path;
    std::uintptr_t m_base = 0;
    std::set<std::uintptr_t> m_dataWords;  // what words of the library's data hold, as far as it lies in it
    std::uintptr_t m_size = 0;
    std::uintptr_t m_table = 0;  // the global offset table, from which 32-bit code reckons

    std::vector<CallSite_> m_callSites;
    std::map<std::uintptr_t, std::string> m_functions;
    std::map<std::uintptr_t, std::set<std::uintptr_t>> m_references;  // addresses named in a function
    std::uintptr_t m_function = 0;                                    // the one being read
    bool m_isReturnMissing = false;
};

#endif
