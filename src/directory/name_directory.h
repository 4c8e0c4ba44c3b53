#ifndef VEKMSG_DIRECTORY_NAME_DIRECTORY_H
#define VEKMSG_DIRECTORY_NAME_DIRECTORY_H

#include <cstddef>
#include <iosfwd>
#include <list>
#include <map>
#include <string>

#include "libcpp/utf8_string.h"

/// The name directory: which transport addresses belong to which component name, read from a text file.
///
///     # comment
///     local:///run/comp/router.sock     router      an address of the component "router"
///     inettcp://192.168.1.20:7000       router      another one; the order counts
///     local:///run/comp/default.sock                an address without a name: a default address
///
/// Address texts are kept as they stand and not looked into here: whoever uses one parses it.
class NameDirectory_ {
public:
    NameDirectory_();
    ~NameDirectory_();

    /// Reads the file, or "/etc/vek.names.directory" for null, in place of all named entries read before;
    /// default addresses are added to those read before. Lines that make no entry are skipped with a warning.
    /// False with a record when the file cannot be opened.
    bool open(const char* p_path);

    /// Reads up to the next entry. An empty `sp_componentName` means a default address; a null `sp_address`
    /// means the end of the file. False with a record when the file cannot be read or memory is short.
    static bool getEntry(std::ifstream* p_file, unsigned int& lineNumber, SP_StdString_& sp_address,
                         SP_Utf8String_& sp_componentName);

    /// The addresses of a component, in file order; none is success. They are shared: do not change them.
    /// False with a record for a null name.
    bool getTransportAddresses(SP_Utf8String_ sp_componentName, std::list<SP_StdString_>& addresses);

    /// The first default address ever read by this object, or null. Always true.
    bool getFirstDefaultTransportAddress(SP_StdString_& sp_address) const;

    /// Forgets the named entries; default addresses stay.
    void close();

private:
    // Stages of getEntry, so that records carry its name: one line, and the name in it.
    static bool getEntry(const std::string& line, unsigned int lineNumber, SP_StdString_& sp_address,
                         SP_Utf8String_& sp_componentName);
    static bool getEntry(const char* p_name, std::size_t length, SP_Utf8String_& sp_componentName);

    std::multimap<SP_Utf8String_, SP_StdString_, libcpp::IsLess_<SP_Utf8String_>> m_addressesByName;
    std::list<SP_StdString_> m_defaultAddresses;
};

#endif
