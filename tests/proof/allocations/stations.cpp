#include "proof/allocations/stations.h"

#include <unistd.h>

#include <stdexcept>

#include "support/utf8_text.h"

namespace {

constexpr unsigned int kMostSends = 5;  // until one arrives: streams that ended have to be noticed first
constexpr unsigned int kRoundsOfWaiting = 12;

}  // namespace

Stations_::Stations_() {
    const auto lines = [&](const char* p_socketOfGamma) {
        return std::vector<std::string>{local("alpha") + " " + kAlpha, local("beta") + " " + kBeta,
                                        local(p_socketOfGamma) + " " + kGamma,
                                        local("nobody") + " " + kNobody};
    };
    m_directory = m_folder.writeFile("names", lines("gamma"));
    m_directoryOfBeta = m_folder.writeFile("names-of-beta", lines("alpha"));
}

void Stations_::prepare() {
    m_p_alpha = std::make_unique<Station_>(kAlpha, m_directory);
    m_p_beta = std::make_unique<Station_>(kBeta, m_directoryOfBeta);
}

void Stations_::openGamma() {
    m_p_gamma = std::make_unique<Station_>(kGamma, m_directory);
}

void Stations_::connect() {
    exchange(*m_p_alpha, *m_p_beta, kBeta);
}

void Stations_::exchange(Station_& from, Station_& to, const char* p_to) {
    if (!arrives(from, to, p_to, 100)) throw std::runtime_error("a message does not arrive");
}

RawPeer_ Stations_::peerOfAlpha(const std::string& name) const {
    RawPeer_ peer(local("alpha"));
    peer.write(wire::nameBlock(name));
    return peer;
}

bool Stations_::arrives(Station_& from, Station_& to, const char* p_to, unsigned int number) {
    if (!from.send(p_to, kSchema, number)) return false;
    for (unsigned int i = 0; i < kRoundsOfWaiting; ++i) {
        const SP_VekMessage_ sp_message = to.receive();
        from.receive();  // also when it has come: a second stream may be closed behind its message
        if (sp_message && Station_::numberIn(sp_message) == static_cast<long>(number)) return true;
        if (sp_message) {
            i = 0;  // others are still coming
            continue;
        }
        if (i > 3 && !from.isConnected(p_to)) return false;
        if (i > 3) to.terminal().waitForMessage(1);
    }
    return false;
}

void Stations_::proveUse(Run_& run) {
    const auto meet = [&](Station_& from, Station_& to, const char* p_to) {
        unsigned int sends = 1;
        while (sends < kMostSends && !arrives(from, to, p_to, 1000 + sends)) ++sends;
        run.require(sends < kMostSends, "no message arrives any more");
        run.require(arrives(from, to, p_to, 2000), "a message after one that arrived does not");
    };
    m_sp_filter.reset();
    for (Station_* p_station : {m_p_alpha.get(), m_p_beta.get()}) {
        p_station->terminal().setSendFilter(SP_VekmsgFilter_());
        p_station->terminal().setReceiveFilter(SP_VekmsgFilter_());
    }
    m_peers.clear();
    m_p_listener.reset();
    run.at("proving the use");
    meet(*m_p_alpha, *m_p_beta, kBeta);
    meet(*m_p_beta, *m_p_alpha, kAlpha);
    m_p_alpha.reset();
    m_p_beta.reset();
    prepare();
    run.at("proving the use after closing and opening");
    meet(*m_p_beta, *m_p_alpha, kAlpha);
    meet(*m_p_alpha, *m_p_beta, kBeta);
    m_terminal.close();
}

bool Stations_::send(Run_& run, Station_& from, const SP_VekMessage_& sp_message) {
    return run.succeeds("sendMessage", [&] { return from.terminal().sendMessage(sp_message); });
}

SP_VekMessage_ Stations_::receive(Run_& run, Station_& at) {
    SP_VekMessage_ sp_message;
    const bool isDone =
        run.succeeds("receiveMessage", [&] { return at.terminal().receiveMessage(sp_message); });
    run.require(isDone || sp_message.isNull(), "fails and gives a message");
    if (sp_message) m_numbers.insert(Station_::numberIn(sp_message));
    return sp_message;
}

void Stations_::settle(Run_& run, const std::vector<Station_*>& stations, unsigned int rounds) {
    for (unsigned int round = 0; round < rounds; ++round) {
        for (Station_* p_station : stations)
            while (receive(run, *p_station)) {
            }
    }
}

std::string Stations_::tcp(unsigned int number) {
    const unsigned int process = static_cast<unsigned int>(getpid());
    return "inettcp://127." + std::to_string(1 + process / 65536 % 200) + "." +
           std::to_string(process / 256 % 256) + "." + std::to_string(process % 256) + ":" +
           std::to_string(7100 + number);
}
