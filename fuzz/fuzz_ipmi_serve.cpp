/* What znpdk-sim serve reads from outside: the engine console's and the
 * control client's output (split at their prompts, then read as verdicts,
 * record numbers and response bytes), and client datagrams judged by the
 * relay. The first byte picks the reader. */
#include <string>

#include "fuzz_support.h"
#include "serve/console.h"
#include "serve/relay.h"

using zfuzz::expect;

namespace {

void split(const std::string& text, const std::string& prompt)
{
    std::string pending = text;
    std::string rebuilt;
    std::string answer;
    while (zcmd::take_answer(pending, prompt, answer)) {
        rebuilt += answer + prompt;
        const std::vector<std::string> lines = zcmd::answer_lines(answer, "sel_add 0x20 2");
        zcmd::ConsoleResult c = zcmd::read_console_answer(lines);
        expect(c.ok == c.error.empty(), "a console error has its text");
        expect(c.record >= -1 && c.record <= 99999, "record number in range");
        zcmd::RawResult r = zcmd::read_raw_answer(lines);
        expect(r.data.size() * 3 <= answer.size() + 1, "no more bytes than the text holds");
        expect(r.answered || r.data.empty(), "no bytes without an answer");
    }
    expect(rebuilt + pending == text, "the answers and the rest are the text");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    switch (data[0] % 3) {
    case 0:
        split(text, "> ");
        break;
    case 1:
        split(text, "ipmitool> ");
        break;
    default: {
        zcmd::Verdict v = zcmd::judge_request(data + 1, size - 1, zcmd::kPrivUser);
        expect(size - 1 >= 4 && data[1] == 0x06 ? true : v.kind == zcmd::Verdict::kDrop, "only RMCP passes");
        if (v.kind == zcmd::Verdict::kRefuse) {
            expect(zcmd::refusal(v.reply_type, v.tag, v.status, v.session).size() == 24, "refusal size");
            expect(v.status == 0x04 || v.status == 0x0A, "refusal status");
        }
        uint32_t console = 0, managed = 0;
        (void)zcmd::opened_session(data + 1, size - 1, console, managed);
        break;
    }
    }
    return 0;
}
