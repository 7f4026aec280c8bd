/* Scenario files of any content: the reader accepts them or names the first
 * mistake with a ScenarioError. The command reports any other std::exception
 * as a rejected file too, so only with ZNPDK_FUZZ_STRICT set are those
 * findings; crashes, memory errors and other throws always are. */
#include <stdio.h>
#include <stdlib.h>

#include <exception>
#include <string>

#include "scenario.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool strict = getenv("ZNPDK_FUZZ_STRICT") != nullptr;
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        zcmd::Scenario s = zcmd::load_scenario(text, "fuzz.json");
        (void)zcmd::missing_functions(s);
    } catch (const zcmd::ScenarioError&) {
    } catch (const std::exception& e) {
        if (strict) {
            fprintf(stderr, "not a ScenarioError: %s\n", e.what());
            abort();
        }
    }
    return 0;
}
