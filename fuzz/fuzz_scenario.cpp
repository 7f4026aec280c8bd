/* Scenario files of any content: the reader accepts them or lists every
 * mistake, each placed in the text, with a ScenarioError; any other
 * exception, or a mistake without a place, is a finding. */
#include <stdio.h>
#include <stdlib.h>

#include <exception>
#include <string>

#include "scenario/scenario.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        zcmd::Scenario s = zcmd::load_scenario(text, "fuzz.json");
        (void)zcmd::missing_functions(s);
    } catch (const zcmd::ScenarioError& e) {
        const auto& all = e.mistakes();
        if (all.empty() || all[0].what != e.what()) {
            fprintf(stderr, "expectation: the error lists its mistakes, this one first: %s\n", e.what());
            abort();
        }
        for (const zcmd::Mistake& m : all) {
            if (m.line == 0 || m.column == 0) {
                fprintf(stderr, "expectation: every mistake has a line and column: %s\n", m.what.c_str());
                abort();
            }
        }
    } catch (const std::exception& e) {
        fprintf(stderr, "not a ScenarioError: %s\n", e.what());
        abort();
    }
    return 0;
}
