/* The UDP relay in front of the IPMI engine: clients reach our ports, each
 * datagram goes on to the engine's port of that controller from a socket of
 * that client's own, and the answers come back. It counts clients and
 * requests, and it refuses what the engine would wrongly grant: an RMCP+
 * session without a password check (authentication algorithm none) or above
 * the clients' privilege level. */
#ifndef ZNPDK_SIM_TOOL_SERVE_RELAY_H
#define ZNPDK_SIM_TOOL_SERVE_RELAY_H

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace zcmd {

constexpr uint8_t kPrivUser = 2;

/* What the relay does with a datagram from a client. */
struct Verdict {
    enum Kind { kDrop, kForward, kRefuse };
    Kind kind = kDrop;
    uint8_t reply_type = 0;  /* kRefuse: the RMCP+ payload type of the answer */
    uint8_t tag = 0;         /* ... the request's message tag */
    uint8_t status = 0;      /* ... the RMCP+ status code */
    uint32_t session = 0;    /* ... the console's session id, or the managed one of a RAKP 1 */
    bool by_managed = false; /* session is the managed system's id: the relay finds the console's */
    const char* why = "";
};
Verdict judge_request(const uint8_t* d, size_t n, uint8_t max_priv);

/* An Open Session Response from the engine: the pair of session ids. */
bool opened_session(const uint8_t* d, size_t n, uint32_t& console, uint32_t& managed);

/* The unauthenticated RMCP+ answer that refuses a session. */
std::vector<uint8_t> refusal(uint8_t reply_type, uint8_t tag, uint8_t status, uint32_t console_session);

/* Loopback UDP port that is free now (0 when none). */
uint16_t free_udp_port();

struct RelayPort {
    int inst = 0;
    uint16_t port = 0;        /* where clients reach it */
    uint16_t engine_port = 0; /* where the engine listens (127.0.0.1) */
};

class Relay {
  public:
    Relay() = default;
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;
    ~Relay();

    /* Binds every client port on `address`; names the first that is taken. */
    bool open(const std::string& address, const std::vector<RelayPort>& ports, std::string& error);
    void start();
    void stop();

    uint64_t requests() const { return requests_; }
    uint64_t answers() const { return answers_; }
    uint64_t refused() const { return refused_; }
    uint64_t clients() const { return clients_; }
    /* Steady-clock milliseconds of the last client datagram (0: none yet). */
    long long last_request_ms() const { return last_request_ms_; }

  private:
    struct Peer;
    void loop();

    std::vector<RelayPort> ports_;
    std::vector<int> fds_;
    int wake_[2] = {-1, -1};
    std::thread thread_;
    std::atomic<uint64_t> requests_{0}, answers_{0}, refused_{0}, clients_{0};
    std::atomic<long long> last_request_ms_{0};
};

long long steady_ms();

} // namespace zcmd

#endif
