#include "campaign/shrink.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <set>

#include "scenario/scenario.h"

namespace zcmd {

namespace {

constexpr int kBlockedShrinkMs = 10000;
constexpr std::chrono::minutes kShrinkTime(10); /* per failure, whatever the attempts left */

class Shrinker {
  public:
    Shrinker(const ojson& doc, const Outcome& failed, const ExecOptions& o, int max_attempts,
             const std::function<void(const Shrunk&)>& progress)
        : o_(o), max_(max_attempts), progress_(progress), start_(std::chrono::steady_clock::now())
    {
        best_.doc = doc;
        best_.outcome = failed;
        /* A candidate that blocks costs its whole bound: one blocked step shows soon enough. */
        if (failed.signature == "blocked") {
            o_.step_timeout_ms = std::min(o_.step_timeout_ms, kBlockedShrinkMs);
        }
    }

    Shrunk run()
    {
        cut_after_failure();
        remove_steps();
        simplify_steps();
        merge_processes();
        remove_steps(); /* simpler steps may leave others without a part to play */
        return best_;
    }

  private:
    ojson& steps() { return best_.doc["steps"]; }
    bool spent() const
    {
        return best_.attempts >= max_ || std::chrono::steady_clock::now() - start_ > kShrinkTime ||
               stop_asked();
    }

    /* Runs a candidate story; keeps it when it fails the same way. */
    bool keep(const ojson& candidate)
    {
        if (spent()) {
            return false;
        }
        std::string text = story_text(candidate);
        if (!tried_.insert(text).second || !readable(text)) {
            return false;
        }
        ++best_.attempts;
        Outcome out = execute(text, o_);
        bool same = out.failed && out.signature == best_.outcome.signature;
        if (same) {
            best_.doc = candidate;
            best_.outcome = out;
        }
        if (progress_) {
            progress_(best_);
        }
        return same;
    }

    bool keep_steps(const ojson& list)
    {
        ojson candidate = best_.doc;
        candidate["steps"] = list;
        return keep(candidate);
    }

    /* Steps after the failing one play no part (unless the failure came at the end). */
    void cut_after_failure()
    {
        int step = best_.outcome.step;
        if (step >= 0 && static_cast<size_t>(step) + 1 < steps().size()) {
            ojson list = ojson::array();
            for (int i = 0; i <= step; ++i) {
                list.push_back(steps()[static_cast<size_t>(i)]);
            }
            keep_steps(list);
        }
    }

    /* ddmin-style: chunks of half the story, then of a quarter, ... then single steps, again
     * while single steps go. */
    void remove_steps()
    {
        size_t chunk = std::max<size_t>(1, steps().size() / 2);
        for (;;) {
            bool removed = false;
            for (size_t start = 0; start < steps().size() && !spent();) {
                ojson list = ojson::array();
                for (size_t i = 0; i < steps().size(); ++i) {
                    if (i < start || i >= start + chunk) {
                        list.push_back(steps()[i]);
                    }
                }
                if (!list.empty() && keep_steps(list)) {
                    removed = true;
                } else {
                    start += chunk;
                }
            }
            if (spent() || (chunk == 1 && !removed)) {
                return;
            }
            chunk = std::max<size_t>(1, chunk / 2);
        }
    }

    /* Simpler forms of one value (of member `key`): numbers toward 0, members and
     * entries dropped. A sensor step stays whole: the IPMI stack holds only states
     * the machine defines for that sensor, and a smaller word, or the same word on
     * another sensor, may be none of them. */
    static void simpler(const ojson& v, std::vector<ojson>& out, const std::string& key = "")
    {
        if (key == "reading" || key == "sensor") {
            return;
        }
        if (v.is_number_integer()) {
            int64_t n = v.get<int64_t>();
            if (n != 0) {
                out.push_back(0);
            }
            if (n > 1 || n < -1) {
                out.push_back(n / 2);
            }
        } else if (v.is_string()) {
            const std::string s = v.get<std::string>();
            char* end = nullptr;
            long long n = std::strtoll(s.c_str(), &end, 0);
            if (!s.empty() && end != nullptr && *end == '\0' && n != 0) {
                bool hex = s.rfind("0x", 0) == 0;
                out.push_back(hex ? "0x0" : "0");
                if (n > 1) {
                    char buf[32];
                    std::snprintf(buf, sizeof buf, hex ? "0x%llX" : "%lld", n / 2);
                    out.push_back(buf);
                }
            }
        } else if (v.is_array()) {
            for (size_t i = 0; i < v.size(); ++i) {
                ojson shorter = v;
                shorter.erase(i);
                out.push_back(shorter);
                std::vector<ojson> parts;
                simpler(v[i], parts);
                for (ojson& p : parts) {
                    ojson c = v;
                    c[i] = std::move(p);
                    out.push_back(std::move(c));
                }
            }
        } else if (v.is_object()) {
            for (auto& kv : v.items()) {
                ojson fewer = v;
                fewer.erase(kv.key());
                if (!fewer.empty()) {
                    out.push_back(fewer);
                }
                std::vector<ojson> parts;
                simpler(kv.value(), parts, kv.key());
                for (ojson& p : parts) {
                    ojson c = v;
                    c[kv.key()] = std::move(p);
                    out.push_back(std::move(c));
                }
            }
        }
    }

    /* A step's simpler forms, the greatest changes first. */
    static std::vector<ojson> simpler_steps(const ojson& st)
    {
        std::vector<ojson> out;
        if (st.contains("kill")) { /* the process lives through its step */
            ojson during = st["kill"]["during"];
            ojson plain{{"process", st["kill"]["process"]}};
            for (auto& kv : during.items()) {
                plain[kv.key()] = kv.value();
            }
            out.push_back(plain);
        }
        if (st.contains("together")) {
            for (const ojson& part : st["together"]) {
                out.push_back(part);
            }
        }
        simpler(st, out);
        return out;
    }

    void simplify_steps()
    {
        for (bool changed = true; changed && !spent();) {
            changed = false;
            for (size_t i = 0; i < steps().size() && !spent(); ++i) {
                for (const ojson& c : simpler_steps(steps()[i])) {
                    ojson list = steps();
                    list[i] = c;
                    if (keep_steps(list)) {
                        changed = true;
                        break;
                    }
                }
            }
        }
    }

    static void rename(ojson& v, const std::string& from, const std::string& to)
    {
        if (v.is_object()) {
            for (auto& kv : v.items()) {
                const std::string& k = kv.key();
                if ((k == "process" || k == "restart") && kv.value() == from) {
                    kv.value() = to;
                } else {
                    rename(kv.value(), from, to);
                }
            }
        } else if (v.is_array()) {
            for (ojson& e : v) {
                rename(e, from, to);
            }
        }
    }

    static void names(const ojson& v, std::vector<std::string>& out)
    {
        if (v.is_object()) {
            for (auto& kv : v.items()) {
                if ((kv.key() == "process" || kv.key() == "restart") && kv.value().is_string() &&
                    std::find(out.begin(), out.end(), kv.value().get<std::string>()) == out.end()) {
                    out.push_back(kv.value().get<std::string>());
                } else {
                    names(kv.value(), out);
                }
            }
        } else if (v.is_array()) {
            for (const ojson& e : v) {
                names(e, out);
            }
        }
    }

    /* One process fewer: every step of one name runs in another. */
    void merge_processes()
    {
        std::vector<std::string> all;
        names(steps(), all);
        for (size_t a = 0; a < all.size() && !spent(); ++a) {
            for (size_t b = a + 1; b < all.size() && !spent(); ++b) {
                ojson list = steps();
                rename(list, all[b], all[a]);
                if (keep_steps(list)) {
                    all.erase(all.begin() + static_cast<std::ptrdiff_t>(b));
                    --b;
                }
            }
        }
    }

    ExecOptions o_;
    int max_;
    std::function<void(const Shrunk&)> progress_;
    Shrunk best_;
    std::set<std::string> tried_;
    std::chrono::steady_clock::time_point start_;
};

} // namespace

bool readable(const std::string& text)
{
    try {
        load_scenario(text, "candidate.json");
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

Shrunk shrink(const ojson& doc, const Outcome& failed, const ExecOptions& o, int max_attempts,
              const std::function<void(const Shrunk&)>& progress)
{
    return Shrinker(doc, failed, o, max_attempts, progress).run();
}

} // namespace zcmd
