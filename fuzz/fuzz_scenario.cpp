/* Scenario files of any content: the reader accepts them or names the first
 * mistake with a ScenarioError; any other exception is a finding. */
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
    } catch (const zcmd::ScenarioError&) {
    } catch (const std::exception& e) {
        fprintf(stderr, "not a ScenarioError: %s\n", e.what());
        abort();
    }
    return 0;
}
