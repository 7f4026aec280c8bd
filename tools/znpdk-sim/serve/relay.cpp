#include "serve/relay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>

namespace zcmd {

namespace {

constexpr uint8_t kRmcpVersion = 0x06;
constexpr uint8_t kClassAsf = 0x06;
constexpr uint8_t kClassIpmi = 0x07;
constexpr uint8_t kFormatRmcpPlus = 0x06;
constexpr uint8_t kOpenSessionRequest = 0x10;
constexpr uint8_t kOpenSessionResponse = 0x11;
constexpr uint8_t kRakp1 = 0x12;
constexpr uint8_t kRakp2 = 0x13;
constexpr uint8_t kStatusBadAuthAlgorithm = 0x04;
constexpr uint8_t kStatusUnauthorizedRole = 0x0A;

constexpr size_t kMaxPeers = 128;
constexpr long long kPeerIdleMs = 120000;

uint32_t le32(const uint8_t* p)
{
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

/* The RMCP+ payload of a session-less message: its type, start and length. */
bool rmcpp_payload(const uint8_t* d, size_t n, uint8_t& type, const uint8_t*& p, size_t& len)
{
    if (n < 16 || d[0] != kRmcpVersion || d[3] != kClassIpmi || d[4] != kFormatRmcpPlus) {
        return false;
    }
    type = d[5] & 0x3F;
    size_t off = type == 0x02 ? 12 : 6; /* an OEM payload carries its IANA and id */
    if (n < off + 10) {
        return false;
    }
    len = d[off + 8] | (d[off + 9] << 8);
    p = d + off + 10;
    return n - (off + 10) >= len;
}

} // namespace

long long steady_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

Verdict judge_request(const uint8_t* d, size_t n, uint8_t max_priv)
{
    Verdict v;
    if (d == nullptr || n < 5 || d[0] != kRmcpVersion || (d[3] != kClassAsf && d[3] != kClassIpmi)) {
        v.why = "not RMCP";
        return v;
    }
    v.kind = Verdict::kForward;
    if (d[3] != kClassIpmi || d[4] != kFormatRmcpPlus) {
        return v; /* ASF ping, IPMI 1.5: the engine checks the user's privilege itself */
    }
    uint8_t type = 0;
    const uint8_t* p = nullptr;
    size_t len = 0;
    if (!rmcpp_payload(d, n, type, p, len)) {
        v.kind = Verdict::kDrop;
        v.why = "cut RMCP+ header";
        return v;
    }
    const bool sealed = (d[5] & 0xC0) != 0;
    if (type == kOpenSessionRequest) {
        if (sealed || len < 32 || p[8] != 0x00 || p[16] != 0x01 || p[24] != 0x02) {
            v.kind = Verdict::kDrop;
            v.why = "malformed open session request";
            return v;
        }
        v.reply_type = kOpenSessionResponse;
        v.tag = p[0];
        v.session = le32(p + 4);
        if ((p[12] & 0x3F) == 0) {
            v.kind = Verdict::kRefuse;
            v.status = kStatusBadAuthAlgorithm;
            v.why = "cipher suite without authentication";
        } else if ((p[1] & 0x0F) > max_priv) {
            v.kind = Verdict::kRefuse;
            v.status = kStatusUnauthorizedRole;
            v.why = "privilege level above the clients'";
        }
    } else if (type == kRakp1) {
        if (sealed || len < 28) {
            v.kind = Verdict::kDrop;
            v.why = "malformed RAKP message 1";
            return v;
        }
        if ((p[24] & 0x0F) > max_priv) {
            v.kind = Verdict::kRefuse;
            v.reply_type = kRakp2;
            v.tag = p[0];
            v.session = le32(p + 4);
            v.by_managed = true;
            v.status = kStatusUnauthorizedRole;
            v.why = "role above the clients' privilege level";
        }
    }
    return v;
}

bool opened_session(const uint8_t* d, size_t n, uint32_t& console, uint32_t& managed)
{
    uint8_t type = 0;
    const uint8_t* p = nullptr;
    size_t len = 0;
    if (!rmcpp_payload(d, n, type, p, len) || type != kOpenSessionResponse || len < 12 || p[1] != 0) {
        return false;
    }
    console = le32(p + 4);
    managed = le32(p + 8);
    return true;
}

std::vector<uint8_t> refusal(uint8_t reply_type, uint8_t tag, uint8_t status, uint32_t console_session)
{
    /* RMCP, then an RMCP+ header outside any session, then the 8-byte error payload. */
    return {kRmcpVersion,
            0,
            0xFF,
            kClassIpmi,
            kFormatRmcpPlus,
            reply_type,
            0,
            0,
            0,
            0,
            0,
            0,
            0,
            0,
            8,
            0,
            tag,
            status,
            0,
            0,
            static_cast<uint8_t>(console_session),
            static_cast<uint8_t>(console_session >> 8),
            static_cast<uint8_t>(console_session >> 16),
            static_cast<uint8_t>(console_session >> 24)};
}

uint16_t free_udp_port()
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return 0;
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    uint16_t port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
        port = ntohs(a.sin_port);
    }
    close(fd);
    return port;
}

/* One client of one port: its own socket towards the engine, so that the
 * engine's answers find their way back. */
struct Relay::Peer {
    size_t port = 0;
    sockaddr_storage addr{};
    socklen_t addr_len = 0;
    int fd = -1;
    long long last_ms = 0;
    std::map<uint32_t, uint32_t> sessions; /* managed system session id -> console's */
    ~Peer()
    {
        if (fd >= 0) {
            close(fd);
        }
    }
};

Relay::~Relay()
{
    stop();
    for (int fd : fds_) {
        close(fd);
    }
}

bool Relay::open(const std::string& address, const std::vector<RelayPort>& ports, std::string& error)
{
    in_addr ip{};
    if (inet_pton(AF_INET, address.c_str(), &ip) != 1) {
        error = "not an IPv4 address: " + address;
        return false;
    }
    for (const RelayPort& rp : ports) {
        int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr = ip;
        a.sin_port = htons(rp.port);
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
            error = "UDP port " + std::to_string(rp.port) + " on " + address + " (instance " +
                    std::to_string(rp.inst) + "): " + std::strerror(errno);
            if (fd >= 0) {
                close(fd);
            }
            return false;
        }
        fds_.push_back(fd);
    }
    ports_ = ports;
    return true;
}

void Relay::start()
{
    if (pipe2(wake_, O_CLOEXEC) == 0) {
        thread_ = std::thread([this] { loop(); });
    }
}

void Relay::stop()
{
    if (thread_.joinable()) {
        (void)!write(wake_[1], "x", 1);
        thread_.join();
    }
    for (int& fd : wake_) {
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
    }
}

void Relay::loop()
{
    std::vector<std::unique_ptr<Peer>> peers;
    uint8_t buf[2048];
    for (;;) {
        const long long now = steady_ms();
        for (size_t i = 0; i < peers.size();) {
            if (now - peers[i]->last_ms > kPeerIdleMs) {
                peers.erase(peers.begin() + static_cast<long>(i));
            } else {
                ++i;
            }
        }
        std::vector<pollfd> pf;
        pf.push_back({wake_[0], POLLIN, 0});
        for (int fd : fds_) {
            pf.push_back({fd, POLLIN, 0});
        }
        for (const auto& peer : peers) {
            pf.push_back({peer->fd, POLLIN, 0});
        }
        if (poll(pf.data(), pf.size(), 1000) < 0 && errno != EINTR) {
            return;
        }
        if (pf[0].revents != 0) {
            return;
        }
        /* Answers first: the client loop below may add and drop peers. */
        for (size_t k = 0; k < peers.size(); ++k) {
            if (pf[1 + fds_.size() + k].revents == 0) {
                continue;
            }
            Peer& q = *peers[k];
            ssize_t n = recv(q.fd, buf, sizeof buf, 0);
            if (n <= 0) {
                continue;
            }
            uint32_t console = 0, managed = 0;
            if (opened_session(buf, static_cast<size_t>(n), console, managed)) {
                if (q.sessions.size() >= 16) {
                    q.sessions.erase(q.sessions.begin());
                }
                q.sessions[managed] = console;
            }
            ++answers_;
            sendto(fds_[q.port], buf, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr*>(&q.addr),
                   q.addr_len);
        }
        for (size_t k = 0; k < fds_.size(); ++k) {
            if (pf[1 + k].revents == 0) {
                continue;
            }
            sockaddr_storage from{};
            socklen_t from_len = sizeof from;
            ssize_t n = recvfrom(fds_[k], buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &from_len);
            if (n < 0) {
                continue;
            }
            last_request_ms_ = steady_ms();
            Peer* peer = nullptr;
            for (const auto& q : peers) {
                if (q->port == k && q->addr_len == from_len && std::memcmp(&q->addr, &from, from_len) == 0) {
                    peer = q.get();
                }
            }
            Verdict v = judge_request(buf, static_cast<size_t>(n), kPrivUser);
            if (v.kind == Verdict::kDrop) {
                ++refused_;
                continue;
            }
            if (v.kind == Verdict::kRefuse) {
                ++refused_;
                uint32_t console = v.session;
                if (v.by_managed) {
                    console = 0;
                    if (peer != nullptr && peer->sessions.count(v.session) != 0) {
                        console = peer->sessions[v.session];
                    }
                }
                std::vector<uint8_t> r = refusal(v.reply_type, v.tag, v.status, console);
                sendto(fds_[k], r.data(), r.size(), 0, reinterpret_cast<sockaddr*>(&from), from_len);
                continue;
            }
            if (peer == nullptr) {
                if (peers.size() >= kMaxPeers) {
                    peers.erase(peers.begin()); /* the oldest gives way */
                }
                auto q = std::make_unique<Peer>();
                q->port = k;
                q->addr = from;
                q->addr_len = from_len;
                q->fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
                sockaddr_in engine{};
                engine.sin_family = AF_INET;
                engine.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                engine.sin_port = htons(ports_[k].engine_port);
                if (q->fd < 0 || connect(q->fd, reinterpret_cast<sockaddr*>(&engine), sizeof engine) != 0) {
                    continue;
                }
                peer = q.get();
                peers.push_back(std::move(q));
                ++clients_;
            }
            peer->last_ms = steady_ms();
            ++requests_;
            send(peer->fd, buf, static_cast<size_t>(n), 0);
        }
    }
}

} // namespace zcmd
