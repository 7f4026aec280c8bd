/* Every exported function of libznpdk, callable by name with arguments
 * given as JSON and pointer arguments read back as values. */
#ifndef ZNPDK_SIM_TOOL_FUNCTIONS_H
#define ZNPDK_SIM_TOOL_FUNCTIONS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <typeinfo>
#include <vector>

#include "scenario/fields.h"
#include "scenario/jsonutil.h"

namespace zcmd {

/* How a parameter is given in a scenario and read back. */
enum class PK {
    U8,        /* INT8U / uint8_t by value */
    I32,       /* int by value */
    U32,       /* uint32_t by value */
    U64,       /* uint64_t by value */
    U16Ref,    /* INT16U*: one value in and out */
    I32Ref,    /* int*: one value in and out */
    U32Ref,    /* uint32_t*: one value in and out */
    I32Arr,    /* int*: `count` values out (and in) */
    U32Arr,    /* uint32_t*: `count` values in and out */
    WordsIn,   /* const uint32_t*: words in, or null */
    WordsOut,  /* uint32_t*: result words, as many as given (default 16) */
    Struct,    /* pointer to a structure of `type`, in and out */
    EscTable,  /* Esc_Table_t* out; its lists are read back and freed */
    Component, /* sp::sysobj::Component*, given as a component path */
    Path,      /* char* / const char* text */
};

struct Param {
    std::string name;
    PK kind;
    size_t count = 0;
    const Type* type = nullptr;
};

/* What the prototype says about one parameter or the result. */
struct CType {
    bool is_void = false;
    bool pointer = false;
    bool integral = false;
    bool is_signed = false;
    bool is_bool = false;
    size_t size = 0; /* of the value, or of the pointee (0 for void*) */
    const std::type_info* pointee = nullptr;
    bool pointee_const = false;
};

/* The integers a C type holds. */
struct IntRange {
    int64_t min;
    uint64_t max_unsigned;
};
IntRange int_range(const CType& c);
/* The integers one element behind a pointer parameter holds. */
IntRange pointee_range(PK k);

/* One argument as passed: an integer or a pointer. */
struct Slot {
    uint64_t bits = 0;
    void* ptr = nullptr;
};

struct Function {
    std::string name;
    std::string family;
    std::vector<Param> params;
    std::vector<CType> ctypes;
    CType ret;
    json (*invoke)(void* symbol, const std::vector<Slot>& args) = nullptr;
    std::string signature() const;
};

/* The address of an exported name of the library (null when it lacks it). */
void* library_symbol(const std::string& name);

const std::vector<Function>& functions();
const Function* find_function(const std::string& name);
/* The names of functions(), for "did you mean" hints. */
std::vector<std::string> function_names();
std::string kind_name(PK k);

/* Arguments checked when the scenario is read. */
struct ArgSpec {
    bool null = false;
    uint64_t bits = 0;
    std::vector<uint8_t> init;
    size_t count = 0;
    std::string text;
};

/* Reads the "args" of a call (a list in parameter order, or an object by
 * parameter name); throws ScenarioError at the offending value. */
std::vector<ArgSpec> parse_args(const Function& f, const Node& args);

/* One call: buffers made from the argument list, the call, the values read back. */
struct CallResult {
    json ret;
    json out = json::object(); /* pointer parameters by name */
    std::string error;         /* set when the call could not be made */
};
CallResult call_function(const Function& f, const std::vector<ArgSpec>& arg_list);

/* "name(a, b, c)" with the arguments as given. */
std::string call_text(const Function& f, const std::vector<ArgSpec>& arg_list);

} // namespace zcmd

#endif
