#ifndef VEKMSG_TERMINAL_ACTIVE_CONNECTIONS_H
#define VEKMSG_TERMINAL_ACTIVE_CONNECTIONS_H

#include <utility>
#include <vector>

#include "terminal/connection.h"

/// The resolved connections in the order of their peers' names, one for each peer at the most.
///
/// They are walked over several times for every message and seldom come or go, so they stand in one array.
/// Whatever adds or removes one moves others: iterators are good until then.
class ActiveConnections_ {
    using Connections_ = std::vector<SP_VekmsgConnection_>;

public:
    using iterator = Connections_::const_iterator;

    iterator begin() const { return m_connections.begin(); }
    iterator end() const { return m_connections.end(); }
    std::size_t size() const { return m_connections.size(); }
    bool empty() const { return m_connections.empty(); }
    const SP_VekmsgConnection_& operator[](std::size_t place) const { return m_connections[place]; }

    /// That with the same peer name, or the end.
    iterator find(const SP_VekmsgConnection_& sp_connection) const;

    /// That which `find` found last, or before that the first one, if its peer has this name; else null. Most
    /// messages go where the one before went, and `find` takes a connection with a name to compare with.
    VekmsgConnection_* findLatest(const Utf8Char_* p_peerName) const;

    /// The first whose peer name is greater.
    iterator upper_bound(const SP_VekmsgConnection_& sp_connection) const;

    /// Where the connection stands, and true; or where that with the same peer name stands, and false.
    /// Throws, with nothing changed, when memory is short.
    std::pair<iterator, bool> insert(const SP_VekmsgConnection_& sp_connection);

    /// The one behind.
    iterator erase(iterator position) {
        ++m_changes;
        return m_connections.erase(position);
    }

    void clear() {
        ++m_changes;
        m_connections.clear();
    }

    /// While this number stays, iterators are good.
    unsigned int changes() const { return m_changes; }

private:
    Connections_ m_connections;
    unsigned int m_changes = 0;

    mutable std::size_t m_latest = 0;  // where `find` found the last one; others come and go
};

#endif
