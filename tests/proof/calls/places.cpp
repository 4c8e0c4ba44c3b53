#include "proof/calls/places.h"

#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <regex>
#include <stdexcept>

#include "packaging/elf_file.h"
#include "support/system_calls.h"

namespace {

/// Functions of the C library that stay inside the process; what happens without memory is proved elsewhere.
const std::set<std::string> kSilent = {
    "__cxa_finalize", "__divdi3", "__errno_location", "__tls_get_addr", "___tls_get_addr", "__stack_chk_fail",
    "bcmp",           "free",     "inet_aton",        "inet_ntoa",      "malloc",          "memchr",
    "memcmp",         "memcpy",   "memmove",          "memset",         "snprintf",        "strchr",
    "strcmp",         "strerror", "strlen",           "strncmp",        "strncpy",         "strnlen",
    "strtol",         "vsnprintf"};

struct Search_ {
    std::string m_name;
    std::string m_path;
    std::uintptr_t m_base;
    std::uintptr_t m_size;
    std::vector<std::pair<std::uintptr_t, std::size_t>> m_data;
};

int findLibrary(struct dl_phdr_info* p_info, size_t, void* p_context) {
    auto& search = *static_cast<Search_*>(p_context);
    const std::string path = p_info->dlpi_name;
    if (path.find('/' + search.m_name) == std::string::npos) return 0;
    search.m_path = path;
    search.m_base = p_info->dlpi_addr;
    for (unsigned int i = 0; i < p_info->dlpi_phnum; ++i) {
        const auto& segment = p_info->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD) continue;
        search.m_size = std::max<std::uintptr_t>(search.m_size, segment.p_vaddr + segment.p_memsz);
        if ((segment.p_flags & PF_X) == 0)
            search.m_data.emplace_back(search.m_base + segment.p_vaddr, segment.p_memsz);
    }
    return 1;
}

/// The lines that a command prints.
class Command_ {
public:
    explicit Command_(const std::string& command) : m_p_pipe(popen(command.c_str(), "r")) {
        if (m_p_pipe == nullptr) throw std::runtime_error(command + " cannot be run");
    }
    ~Command_() {
        if (m_p_pipe != nullptr) pclose(m_p_pipe);
    }
    Command_(const Command_&) = delete;
    Command_& operator=(const Command_&) = delete;

    bool readLine(std::string& line) {
        line.clear();
        for (int character = std::fgetc(m_p_pipe); character != EOF; character = std::fgetc(m_p_pipe)) {
            if (character == '\n') return true;
            line += static_cast<char>(character);
        }
        return false;
    }

    bool hasSucceeded() {
        const int result = pclose(m_p_pipe);
        m_p_pipe = nullptr;
        return result == 0;
    }

private:
    FILE* m_p_pipe;
};

std::uintptr_t hexadecimal(const std::string& digits) {
    return static_cast<std::uintptr_t>(std::stoull(digits, nullptr, 16));
}

const std::set<std::string>& plannedCalls() {
    static const std::set<std::string> s_calls = [] {
        std::set<std::string> calls = {"fcntl64", "fopen64"};
        for (int call = 0; call < SystemCalls_::NumberOfCalls; ++call)
            calls.insert(SystemCalls_::name(static_cast<SystemCalls_::Call_>(call)));
        return calls;
    }();
    return s_calls;
}

}  // namespace

LoadedLibrary_::LoadedLibrary_(const std::string& name) {
    Search_ search = {name, "", 0, 0, {}};
    if (dl_iterate_phdr(findLibrary, &search) == 0) throw std::runtime_error(name + " is not loaded");
    m_path = search.m_path;
    m_base = search.m_base;
    m_size = search.m_size;
    for (const auto& [begin, size] : search.m_data) {
        const std::uintptr_t first = (begin + sizeof(void*) - 1) / sizeof(void*) * sizeof(void*);
        for (std::uintptr_t at = first; at + sizeof(void*) <= begin + size; at += sizeof(void*)) {
            const std::uintptr_t word = *reinterpret_cast<const std::uintptr_t*>(at);
            if (word > m_base && word < m_base + m_size) m_dataWords.insert(word - m_base);
        }
    }
    for (const ElfSection_& section : ElfFile_(m_path).sections())
        if (section.m_name == ".got.plt" || (section.m_name == ".got" && m_table == 0))
            m_table = section.m_address;
    readDisassembly();
    findUsed();
}

void LoadedLibrary_::readDisassembly() {
    const std::string command = "objdump -d -C --no-show-raw-insn '" + m_path + "'";
    Command_ objdump(command);
    std::string line;
    while (objdump.readLine(line)) readLine(line);
    if (!objdump.hasSucceeded() || m_callSites.empty())
        throw std::runtime_error("no disassembly by " + command);
}

// "   1c549:\tcall   c2e0 <getpeername@plt>" or, where calls need no such stub,
// "   1c549:\tcall   *0x2a831(%rip)        # 46d80 <getpeername@GLIBC_2.2.5>", or "addr32 call" to one of our
// own where the linker knew it; and before it "000000000001c530 <(anonymous ...)::hasPeer(int)>:"
void LoadedLibrary_::readLine(const std::string& line) {
    if (!line.empty() && line.back() == ':' && line[0] == '0') {
        m_function = hexadecimal(line);
        m_functions[m_function] = line.substr(line.find('<') + 1, line.size() - line.find('<') - 3);
        return;
    }
    const std::size_t tab = line.find(":\t");
    if (line.empty() || line[0] != ' ' || tab == std::string::npos) return;
    const std::uintptr_t at = hexadecimal(line);
    if (m_isReturnMissing) m_callSites.back().m_return = at;
    m_isReturnMissing = false;

    static const std::regex s_branch(":\t(?:addr32 )?(call|j[a-z]+) +([0-9a-f]+) <(.*)>$");
    static const std::regex s_address("# ([0-9a-f]+) <");
    static const std::regex s_displacement("(-?)0x([0-9a-f]+)\\(%e");
    static const std::regex s_throughTable(":\tcall +\\*0x[0-9a-f]+\\(%rip\\) +# [0-9a-f]+ <(.*)@.*>$");
    std::smatch found;
    if (std::regex_search(line, found, s_throughTable)) {
        addCallSite(found[1], at);
    } else if (std::regex_search(line, found, s_branch)) {
        const std::string target = found[3];
        if (target.size() > 4 && target.compare(target.size() - 4, 4, "@plt") == 0)
            addCallSite(target.substr(0, target.size() - 4), at);
        m_references[m_function].insert(hexadecimal(found[2]));
    } else if (std::regex_search(line, found, s_address)) {
        m_references[m_function].insert(hexadecimal(found[1]));
    } else if (std::regex_search(line, found, s_displacement)) {
        const std::uintptr_t distance = hexadecimal(found[2]);
        m_references[m_function].insert(found[1] == "-" ? m_table - distance : m_table + distance);
    }
}

void LoadedLibrary_::addCallSite(const std::string& name, std::uintptr_t at) {
    if (plannedCalls().count(name) == 0) return;
    m_callSites.push_back({name, m_functions[m_function], at, 0, false});
    m_isReturnMissing = true;
}

/// Exported, or its address stands in the data: in a table of virtual functions, for example.
bool LoadedLibrary_::isEntry(std::uintptr_t function) const {
    Dl_info info;
    if (dladdr(reinterpret_cast<const void*>(m_base + function), &info) != 0 &&
        reinterpret_cast<std::uintptr_t>(info.dli_saddr) == m_base + function)
        return true;
    return m_dataWords.count(function) != 0;
}

// Compilers keep a copy of a function that they have put into all its callers. Nothing leads there.
void LoadedLibrary_::findUsed() {
    std::set<std::uintptr_t> used;
    std::vector<std::uintptr_t> pending;
    for (const auto& entry : m_functions)
        if (isEntry(entry.first)) pending.push_back(entry.first);
    while (!pending.empty()) {
        const std::uintptr_t function = pending.back();
        pending.pop_back();
        if (!used.insert(function).second) continue;
        for (const std::uintptr_t address : m_references[function]) {
            auto next = m_functions.upper_bound(address);
            if (next == m_functions.begin()) continue;
            pending.push_back((--next)->first);
        }
    }
    for (CallSite_& site : m_callSites)
        site.m_isUsed = used.count((--m_functions.upper_bound(site.m_at))->first) != 0;
}

const CallSite_* LoadedLibrary_::siteOf(const void* p_return) const {
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(p_return) - m_base;
    const auto found = std::find_if(m_callSites.begin(), m_callSites.end(),
                                    [=](const CallSite_& site) { return site.m_return == address; });
    return found != m_callSites.end() ? &*found : nullptr;
}

std::vector<std::string> LoadedLibrary_::callsNotTakenOver() const {
    Dl_info own;
    dladdr(reinterpret_cast<const void*>(&noteCall), &own);
    std::vector<std::string> names;
    for (const ElfSymbol_& symbol : ElfFile_(m_path).dynamicSymbols()) {
        if (symbol.m_isDefined || symbol.m_version.rfind("GLIBC_", 0) != 0) continue;
        if (kSilent.count(symbol.m_name) != 0) continue;
        Dl_info info;
        void* p_definition = dlsym(RTLD_DEFAULT, symbol.m_name.c_str());
        if (p_definition == nullptr || dladdr(p_definition, &info) == 0 || info.dli_fbase != own.dli_fbase)
            names.push_back(symbol.m_name);
    }
    return names;
}
