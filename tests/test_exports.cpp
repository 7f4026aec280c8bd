/* The shipped library exports exactly the names of its version script,
 * and every one of them is a name the BMC processes expect. */
#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "znpdk_version.h"

namespace {

std::vector<uint8_t> slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

struct DynInfo {
    std::set<std::string> defined;
    std::string soname;
};

template <typename Ehdr, typename Shdr, typename Sym, typename Dyn>
DynInfo read_dynamic(const std::vector<uint8_t>& img)
{
    DynInfo info;
    auto at = [&](size_t off, size_t len) {
        if (off + len > img.size()) {
            throw std::runtime_error("truncated ELF file");
        }
        return img.data() + off;
    };
    Ehdr eh;
    std::memcpy(&eh, at(0, sizeof eh), sizeof eh);
    std::vector<Shdr> sh(eh.e_shnum);
    for (size_t i = 0; i < sh.size(); ++i) {
        std::memcpy(&sh[i], at(eh.e_shoff + i * eh.e_shentsize, sizeof(Shdr)), sizeof(Shdr));
    }
    for (const Shdr& s : sh) {
        if (s.sh_type == SHT_DYNSYM) {
            const Shdr& strtab = sh.at(s.sh_link);
            size_t n = s.sh_size / sizeof(Sym);
            for (size_t i = 1; i < n; ++i) {
                Sym sym;
                std::memcpy(&sym, at(s.sh_offset + i * sizeof(Sym), sizeof sym), sizeof sym);
                unsigned bind = sym.st_info >> 4;
                if (sym.st_shndx == SHN_UNDEF || (bind != STB_GLOBAL && bind != STB_WEAK)) {
                    continue;
                }
                std::string name(reinterpret_cast<const char*>(at(strtab.sh_offset + sym.st_name, 1)));
                if (sym.st_shndx == SHN_ABS && name == "ZNPDK_1") {
                    continue; /* the version definition itself */
                }
                info.defined.insert(name);
            }
        }
        if (s.sh_type == SHT_DYNAMIC) {
            const Shdr& strtab = sh.at(s.sh_link);
            size_t n = s.sh_size / sizeof(Dyn);
            for (size_t i = 0; i < n; ++i) {
                Dyn d;
                std::memcpy(&d, at(s.sh_offset + i * sizeof(Dyn), sizeof d), sizeof d);
                if (d.d_tag == DT_SONAME) {
                    info.soname = reinterpret_cast<const char*>(at(strtab.sh_offset + d.d_un.d_val, 1));
                }
            }
        }
    }
    return info;
}

DynInfo read_library(const std::string& path)
{
    std::vector<uint8_t> img = slurp(path);
    if (img.size() < EI_NIDENT || std::memcmp(img.data(), ELFMAG, SELFMAG) != 0) {
        throw std::runtime_error("not an ELF file: " + path);
    }
    if (img[EI_CLASS] == ELFCLASS32) {
        return read_dynamic<Elf32_Ehdr, Elf32_Shdr, Elf32_Sym, Elf32_Dyn>(img);
    }
    return read_dynamic<Elf64_Ehdr, Elf64_Shdr, Elf64_Sym, Elf64_Dyn>(img);
}

/* Names listed in the global part of the version script, comments ignored. */
std::set<std::string> version_script_names(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    std::string text = std::regex_replace(ss.str(), std::regex(R"(/\*[\s\S]*?\*/)"), " ");
    size_t g = text.find("global:");
    size_t l = text.find("local:");
    EXPECT_NE(g, std::string::npos);
    EXPECT_NE(l, std::string::npos);
    std::string globals = text.substr(g + 7, l - g - 7);
    std::set<std::string> names;
    std::regex name_re(R"(([A-Za-z_][A-Za-z0-9_]*)\s*;)");
    for (std::sregex_iterator it(globals.begin(), globals.end(), name_re), end; it != end; ++it) {
        names.insert((*it)[1]);
    }
    return names;
}

} // namespace

TEST(Exports, DynamicSymbolsAreExactlyTheVersionScript)
{
    DynInfo lib = read_library(ZNPDK_LIBRARY_FILE);
    std::set<std::string> script = version_script_names(ZNPDK_VERSION_SCRIPT);
    ASSERT_FALSE(script.empty());
    for (const auto& n : script) {
        EXPECT_TRUE(lib.defined.count(n)) << n << " is listed but not exported";
    }
    for (const auto& n : lib.defined) {
        EXPECT_TRUE(script.count(n)) << n << " is exported but not listed";
    }
}

TEST(Exports, SonameAndFileNameFollowTheVersionMacros)
{
    // Every change so far is compatible: the SONAME stays libznpdk.so.1.
    static_assert(ZNPDK_VERSION_MAJOR == 1, "an incompatible release needs a new SONAME and ABI baseline");
    const std::string version = std::to_string(ZNPDK_VERSION_MAJOR) + "." +
                                std::to_string(ZNPDK_VERSION_MINOR) + "." +
                                std::to_string(ZNPDK_VERSION_PATCH);
    EXPECT_EQ(version, ZNPDK_VERSION);
    EXPECT_EQ(read_library(ZNPDK_LIBRARY_FILE).soname, "libznpdk.so.1");
    const std::string file = ZNPDK_LIBRARY_FILE;
    EXPECT_EQ(file.substr(file.rfind('/') + 1), "libznpdk.so." + version);
}

TEST(Exports, VersionScriptIsTheAgreedList)
{
    std::ifstream in(std::string(ZNPDK_SOURCE_DIR) + "/exports.txt");
    ASSERT_TRUE(in) << "exports.txt is missing from the checkout";
    std::set<std::string> agreed;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line[0] != '#') {
            agreed.insert(line.substr(0, line.find_first_of(" \t\r")));
        }
    }
    EXPECT_EQ(agreed, version_script_names(ZNPDK_VERSION_SCRIPT));
}
