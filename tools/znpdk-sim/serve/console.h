/* Child programs spoken to line by line through their standard input and
 * output, each answer ending at a prompt: the IPMI engine's emulator console
 * and the control session that sets SEL clocks and reads entries back. The
 * readers of what they print are kept apart from the pipes, so that they
 * can be fuzzed. */
#ifndef ZNPDK_SIM_TOOL_SERVE_CONSOLE_H
#define ZNPDK_SIM_TOOL_SERVE_CONSOLE_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zcmd {

/* Takes one answer off the front of `pending`: the text before the first
 * `prompt` that starts a line (or the text). False while no prompt came. */
bool take_answer(std::string& pending, const std::string& prompt, std::string& answer);

/* An answer as lines, without carriage returns, empty lines or the echo of
 * the command that asked it. */
std::vector<std::string> answer_lines(const std::string& answer, const std::string& command);

/* The engine console's verdict: its error lines start with "**". */
struct ConsoleResult {
    bool ok = false;
    std::string error;
    int record = -1; /* "Added record N" of sel_add */
};
ConsoleResult read_console_answer(const std::vector<std::string>& lines);

/* A raw request's answer printed by the control client: the response bytes,
 * or the completion code it reported. */
struct RawResult {
    bool answered = false;
    uint8_t cc = 0;
    std::vector<uint8_t> data;
};
RawResult read_raw_answer(const std::vector<std::string>& lines);

class PromptedChild {
  public:
    PromptedChild() = default;
    PromptedChild(const PromptedChild&) = delete;
    PromptedChild& operator=(const PromptedChild&) = delete;
    ~PromptedChild();

    /* Starts argv[0] with its output and errors on one pipe, in a process
     * group of its own (a Ctrl-C reaches us, and we end it) and told to die
     * with us; waits for the first prompt. */
    bool start(const std::vector<std::string>& argv, const std::string& prompt, int timeout_ms,
               std::string& error);
    /* Sends lines and collects one answer per line, in order. */
    bool ask(const std::vector<std::string>& commands, std::vector<std::string>& answers, int timeout_ms,
             std::string& error);
    /* Says goodbye (when given), then ends the child: SIGTERM after `grace_ms`, SIGKILL after more. */
    void stop(const std::string& goodbye, int grace_ms);
    bool running() const { return pid_ > 0; }
    /* What the child printed before its first prompt. */
    const std::string& banner() const { return banner_; }

  private:
    bool read_more(int timeout_ms, std::string& error);

    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    std::string prompt_;
    std::string pending_;
    std::string banner_;
};

} // namespace zcmd

#endif
