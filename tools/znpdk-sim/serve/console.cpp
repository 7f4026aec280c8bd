#include "serve/console.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace zcmd {

namespace {

bool is_hex_pair(const std::string& t)
{
    return t.size() == 2 && std::isxdigit(static_cast<unsigned char>(t[0])) &&
           std::isxdigit(static_cast<unsigned char>(t[1]));
}

std::vector<std::string> words(const std::string& line)
{
    std::vector<std::string> out;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) {
            ++i;
        }
        size_t j = i;
        while (j < line.size() && line[j] != ' ' && line[j] != '\t') {
            ++j;
        }
        if (j > i) {
            out.push_back(line.substr(i, j - i));
        }
        i = j;
    }
    return out;
}

long long ms_since(std::chrono::steady_clock::time_point t)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t)
        .count();
}

} // namespace

bool take_answer(std::string& pending, const std::string& prompt, std::string& answer)
{
    if (prompt.empty()) {
        return false;
    }
    for (size_t at = pending.find(prompt); at != std::string::npos; at = pending.find(prompt, at + 1)) {
        if (at == 0 || pending[at - 1] == '\n' || pending[at - 1] == '\r') {
            answer = pending.substr(0, at);
            pending.erase(0, at + prompt.size());
            return true;
        }
    }
    return false;
}

std::vector<std::string> answer_lines(const std::string& answer, const std::string& command)
{
    std::vector<std::string> out;
    size_t start = 0;
    while (start <= answer.size()) {
        size_t end = answer.find('\n', start);
        std::string line = answer.substr(start, end == std::string::npos ? std::string::npos : end - start);
        line.erase(std::remove(line.begin(), line.end(), '\r'), line.end());
        if (!line.empty()) {
            out.push_back(line);
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    if (!out.empty() && !command.empty() && out.front() == command) {
        out.erase(out.begin()); /* the echo of a console that is no terminal */
    }
    return out;
}

ConsoleResult read_console_answer(const std::vector<std::string>& lines)
{
    ConsoleResult r;
    r.ok = true;
    for (const std::string& l : lines) {
        if (l.compare(0, 2, "**") == 0) {
            r.ok = false;
            const size_t text = l.find_first_not_of(" \t\r", 2);
            r.error += (r.error.empty() ? "" : "; ") +
                       (text == std::string::npos ? std::string("an error without text") : l.substr(text));
        } else if (l.compare(0, 13, "Added record ") == 0) {
            const std::string n = l.substr(13);
            if (!n.empty() && n.size() <= 5 && n.find_first_not_of("0123456789") == std::string::npos) {
                r.record = std::stoi(n);
            }
        }
    }
    return r;
}

RawResult read_raw_answer(const std::vector<std::string>& lines)
{
    RawResult r;
    r.answered = true;
    for (const std::string& l : lines) {
        if (l.compare(0, 25, "Unable to send RAW command") == 0) {
            size_t at = l.find("rsp=0x");
            r.answered = at != std::string::npos && at + 8 <= l.size() && is_hex_pair(l.substr(at + 6, 2));
            r.cc = r.answered ? static_cast<uint8_t>(std::stoi(l.substr(at + 6, 2), nullptr, 16)) : 0;
            if (!r.answered || r.cc == 0) {
                r.answered = false; /* no response, or a code that says nothing */
            }
            r.data.clear();
            return r;
        }
        std::vector<std::string> w = words(l);
        bool bytes = !w.empty();
        for (const std::string& t : w) {
            bytes = bytes && is_hex_pair(t);
        }
        if (bytes) {
            for (const std::string& t : w) {
                r.data.push_back(static_cast<uint8_t>(std::stoi(t, nullptr, 16)));
            }
        }
    }
    return r;
}

PromptedChild::~PromptedChild()
{
    stop("", 0);
}

bool PromptedChild::start(const std::vector<std::string>& argv, const std::string& prompt, int timeout_ms,
                          std::string& error)
{
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0) {
        error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    if (pipe2(out, O_CLOEXEC) != 0) {
        error = std::string("pipe: ") + std::strerror(errno);
        close(in[0]);
        close(in[1]);
        return false;
    }
    std::vector<char*> args;
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    const pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        signal(SIGPIPE, SIG_DFL);
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(out[1], 2);
        for (int fd = 3; fd < 1024; ++fd) {
            close(fd);
        }
        execvp(args[0], args.data());
        std::fprintf(stderr, "cannot run %s: %s\n", args[0], std::strerror(errno));
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    if (pid < 0) {
        error = std::string("fork: ") + std::strerror(errno);
        close(in[1]);
        close(out[0]);
        return false;
    }
    pid_ = pid;
    in_ = in[1];
    out_ = out[0];
    prompt_ = prompt;
    pending_.clear();
    const auto t0 = std::chrono::steady_clock::now();
    while (!take_answer(pending_, prompt_, banner_)) {
        long long left = timeout_ms - ms_since(t0);
        if (left <= 0 || !read_more(static_cast<int>(left), error)) {
            if (error.empty()) {
                error = "no prompt after " + std::to_string(timeout_ms) + " ms";
            }
            error += pending_.empty() ? "" : " (it said: " + pending_.substr(0, 400) + ")";
            stop("", 0);
            return false;
        }
    }
    return true;
}

bool PromptedChild::read_more(int timeout_ms, std::string& error)
{
    pollfd p{out_, POLLIN, 0};
    int n = poll(&p, 1, timeout_ms);
    if (n < 0 && errno == EINTR) {
        return true;
    }
    if (n <= 0) {
        error = n == 0 ? "" : std::string("poll: ") + std::strerror(errno);
        return false;
    }
    char buf[8192];
    ssize_t got = read(out_, buf, sizeof buf);
    if (got <= 0) {
        error = "it ended";
        return false;
    }
    pending_.append(buf, static_cast<size_t>(got));
    return true;
}

bool PromptedChild::ask(const std::vector<std::string>& commands, std::vector<std::string>& answers,
                        int timeout_ms, std::string& error)
{
    if (pid_ <= 0) {
        error = "not running";
        return false;
    }
    /* In batches, so that neither pipe fills while the other waits. */
    constexpr size_t kBatch = 64;
    for (size_t from = 0; from < commands.size(); from += kBatch) {
        size_t to = std::min(commands.size(), from + kBatch);
        std::string text;
        for (size_t i = from; i < to; ++i) {
            text += commands[i] + "\n";
        }
        for (size_t off = 0; off < text.size();) {
            ssize_t w = write(in_, text.data() + off, text.size() - off);
            if (w < 0 && errno == EINTR) {
                continue;
            }
            if (w <= 0) {
                error = std::string("write: ") + std::strerror(errno);
                return false;
            }
            off += static_cast<size_t>(w);
        }
        const auto t0 = std::chrono::steady_clock::now();
        for (size_t i = from; i < to; ++i) {
            std::string a;
            while (!take_answer(pending_, prompt_, a)) {
                long long left = timeout_ms - ms_since(t0);
                if (left <= 0 || !read_more(static_cast<int>(left), error)) {
                    error = "no answer to \"" + commands[i] + "\"" + (error.empty() ? "" : ": " + error);
                    return false;
                }
            }
            answers.push_back(a);
        }
    }
    return true;
}

void PromptedChild::stop(const std::string& goodbye, int grace_ms)
{
    if (pid_ <= 0) {
        return;
    }
    if (!goodbye.empty()) {
        std::string line = goodbye + "\n";
        (void)!write(in_, line.data(), line.size());
    }
    close(in_);
    in_ = -1;
    int status = 0;
    for (int signo : {0, SIGTERM, SIGKILL}) {
        if (signo != 0) {
            kill(pid_, signo);
        }
        const auto t0 = std::chrono::steady_clock::now();
        bool gone = false;
        do {
            pid_t w = waitpid(pid_, &status, WNOHANG);
            gone = w == pid_ || (w < 0 && errno == ECHILD);
            if (!gone) {
                usleep(10000);
            }
        } while (!gone && ms_since(t0) < (signo == SIGKILL ? 5000 : grace_ms));
        if (gone) {
            break;
        }
    }
    close(out_);
    out_ = -1;
    pid_ = -1;
}

} // namespace zcmd
