#include "terminal/active_connections.h"

#include <algorithm>
#include <cstddef>

namespace {

using IsLess_ = libcpp::IsLess_<SP_VekmsgConnection_>;

}  // namespace

ActiveConnections_::iterator ActiveConnections_::find(const SP_VekmsgConnection_& sp_connection) const {
    const iterator found = std::lower_bound(begin(), end(), sp_connection, IsLess_());
    const bool isThere = found != end() && !IsLess_()(sp_connection, *found);
    if (!isThere) return end();
    m_latest = static_cast<std::size_t>(found - begin());
    return found;
}

[[gnu::hot]] VekmsgConnection_* ActiveConnections_::findLatest(const Utf8Char_* p_peerName) const {
    if (m_latest >= size() || !m_connections[m_latest]->hasPeer(p_peerName)) return nullptr;
    return m_connections[m_latest].get();
}

ActiveConnections_::iterator ActiveConnections_::upper_bound(
    const SP_VekmsgConnection_& sp_connection) const {
    return std::upper_bound(begin(), end(), sp_connection, IsLess_());
}

std::pair<ActiveConnections_::iterator, bool> ActiveConnections_::insert(
    const SP_VekmsgConnection_& sp_connection) {
    const iterator behind = upper_bound(sp_connection);
    if (behind != begin() && !IsLess_()(*(behind - 1), sp_connection)) return {behind - 1, false};
    ++m_changes;
    return {m_connections.insert(behind, sp_connection), true};
}
