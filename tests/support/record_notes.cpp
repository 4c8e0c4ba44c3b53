#include "support/record_notes.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/record_capture.h"
#include "vekmsg/log.h"

// The linker gives each module's sites a first and a last; a program that has no such module has neither.
#define SITES_OF(module)                                                                                \
    extern const LogSite g_first_##module __asm__("__start_vekmsg_log_" #module) __attribute__((weak)); \
    extern const LogSite g_end_##module __asm__("__stop_vekmsg_log_" #module) __attribute__((weak));
SITES_OF(vekmsg_binary)
SITES_OF(vek_socket)
SITES_OF(name_directory)
SITES_OF(vekmsg_impl)
SITES_OF(vekmsg)
SITES_OF(c_binding)

namespace {

struct Sites_ {
    const LogSite* m_p_first;
    const LogSite* m_p_end;
};

const Sites_ g_modules[] = {{&g_first_vekmsg_binary, &g_end_vekmsg_binary},
                            {&g_first_vek_socket, &g_end_vek_socket},
                            {&g_first_name_directory, &g_end_name_directory},
                            {&g_first_vekmsg_impl, &g_end_vekmsg_impl},
                            {&g_first_vekmsg, &g_end_vekmsg},
                            {&g_first_c_binding, &g_end_c_binding}};

/// Null for a site of a test's own.
const Sites_* moduleOf(const LogSite* p_site) {
    for (const Sites_& module : g_modules)
        if (p_site >= module.m_p_first && p_site < module.m_p_end) return &module;
    return nullptr;
}

/// How many sites of the same line and function come before it.
unsigned int ordinalOf(const LogSite* p_site, const Sites_& module) {
    unsigned int ordinal = 0;
    for (const LogSite* p_other = module.m_p_first; p_other != p_site; ++p_other)
        if (p_other->line == p_site->line && std::strcmp(p_other->p_signature, p_site->p_signature) == 0)
            ++ordinal;
    return ordinal;
}

/// One line of the file, in a fixed room.
class Line_ {
public:
    void append(const char* p_text) {
        while (*p_text != '\0') append(*p_text++);
    }
    void append(unsigned long number) {
        char digits[24];
        std::snprintf(digits, sizeof(digits), "%lu", number);
        append(digits);
    }
    void appendField(const char* p_text) {
        append('\t');
        for (; *p_text != '\0'; ++p_text) {
            const auto byte = static_cast<unsigned char>(*p_text);
            if (byte >= 0x20 && byte != '\\') {
                append(*p_text);
                continue;
            }
            static const char s_digits[] = "0123456789abcdef";
            append("\\x");
            append(s_digits[byte >> 4]);
            append(s_digits[byte & 15]);
        }
    }
    void appendField(unsigned long number) {
        append('\t');
        append(number);
    }
    void end() { append('\n'); }

    std::uint64_t hash() const {
        std::uint64_t hash = 14695981039346656037U;
        for (std::size_t i = 0; i < m_length; ++i)
            hash = (hash ^ static_cast<unsigned char>(m_text[i])) * 1099511628211U;
        return hash | 1;
    }
    void writeTo(int descriptor) const {
        if (write(descriptor, m_text, m_length) != static_cast<ssize_t>(m_length)) std::abort();
    }

private:
    void append(char character) {
        if (m_length == sizeof(m_text)) std::abort();  // a note that is cut would prove nothing
        m_text[m_length++] = character;
    }

    char m_text[16384];
    std::size_t m_length = 0;
};

/// Whether this is the first note of its kind in this process. What finds no room counts as new.
bool isNew(std::uint64_t hash) {
    static std::atomic<std::uint64_t> s_seen[1U << 15];
    constexpr std::size_t size = sizeof(s_seen) / sizeof(s_seen[0]);
    for (std::size_t i = 0; i < 64; ++i) {
        std::atomic<std::uint64_t>& place = s_seen[(hash + i) % size];
        std::uint64_t found = 0;
        if (place.compare_exchange_strong(found, hash)) return true;
        if (found == hash) return false;
    }
    return true;
}

const char* folder() {
    static const char* const s_p_folder = std::getenv("VEKMSG_RECORDS_FOLDER");
    return s_p_folder;
}

/// The file is open only meanwhile: tests count descriptors, and calls of close().
void keep(Line_& line) {
    line.end();
    if (!isNew(line.hash())) return;
    const int savedErrno = errno;
    char path[4096];
    std::snprintf(path, sizeof(path), "%s/%ld", folder(), static_cast<long>(getpid()));
    const int descriptor = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (descriptor < 0) std::abort();
    line.writeTo(descriptor);
    syscall(SYS_close, descriptor);
    errno = savedErrno;
}

void note(const char* p_kind, const Record_& record) {
    if (folder() == nullptr || record.m_p_site == nullptr) return;
    const Sites_* p_module = moduleOf(record.m_p_site);
    if (p_module == nullptr) return;
    Line_ line;
    line.append(p_kind);
    line.appendField(static_cast<unsigned long>(record.m_severity));
    line.appendField(record.m_source.c_str());
    line.appendField(record.m_signature.c_str());
    line.appendField(record.m_p_site->line);
    line.appendField(ordinalOf(record.m_p_site, *p_module));
    line.appendField(record.m_text.c_str());
    keep(line);
}

}  // namespace

void noteSeen(const Record_& record) {
    note("seen", record);
}

void noteSeen(int severity, const LogSite* p_site, const char* p_text) {
    if (folder() == nullptr) return;
    Record_ record(severity, p_site->p_sourceName, p_site->p_signature, p_text);
    record.m_p_site = p_site;
    noteSeen(record);
}

void noteAsserted(const Record_& record) {
    note("asserted", record);
}

void noteCall(const char* p_entry, const char* p_way) {
    if (folder() == nullptr) return;
    Line_ line;
    line.append("call");
    line.appendField(p_entry);
    line.appendField(p_way);
    keep(line);
}
