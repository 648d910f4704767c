/*
 * The symbols a shared object's file holds, for messages about shader
 * functions the dynamic linker cannot find: a function that exists but is
 * hidden (not exported), or one that has a C++ (mangled) name.  Reads the
 * file's symbol tables (.symtab when the file is not stripped, .dynsym);
 * anything that is not a well-formed 64-bit ELF file gives no symbols.
 */
#include "runtime_internal.h"

#include <cstdio>
#include <cstring>
#include <elf.h>
#include <fstream>
#include <iterator>

namespace mirt {
namespace rt {

namespace {

template <class T> bool readAt(const std::string &data, uint64_t off, T &out)
{
    if (off > data.size() || data.size() - off < sizeof(T))
        return false;
    std::memcpy(&out, data.data() + off, sizeof(T));
    return true;
}

} // namespace

std::vector<FileSymbol> file_symbols(const std::string &path, const std::vector<std::string> &names)
{
    std::vector<FileSymbol> found;
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return found;
    const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    Elf64_Ehdr eh;
    if (!readAt(data, 0, eh) || std::memcmp(eh.e_ident, ELFMAG, SELFMAG) != 0 || eh.e_ident[EI_CLASS] != ELFCLASS64 ||
        eh.e_shentsize != sizeof(Elf64_Shdr))
        return found;
    for (unsigned i = 0; i < eh.e_shnum; ++i) {
        Elf64_Shdr sh;
        if (!readAt(data, eh.e_shoff + uint64_t(i) * sizeof(Elf64_Shdr), sh))
            return found;
        if ((sh.sh_type != SHT_SYMTAB && sh.sh_type != SHT_DYNSYM) || sh.sh_entsize != sizeof(Elf64_Sym))
            continue;
        Elf64_Shdr strs;
        if (!readAt(data, eh.e_shoff + uint64_t(sh.sh_link) * sizeof(Elf64_Shdr), strs) || strs.sh_offset > data.size())
            continue;
        const uint64_t strEnd = std::min<uint64_t>(data.size(), strs.sh_offset + strs.sh_size);
        for (uint64_t k = 0; k < sh.sh_size / sizeof(Elf64_Sym); ++k) {
            Elf64_Sym sym;
            if (!readAt(data, sh.sh_offset + k * sizeof(Elf64_Sym), sym))
                break;
            if (ELF64_ST_TYPE(sym.st_info) != STT_FUNC || sym.st_shndx == SHN_UNDEF)
                continue;
            const uint64_t at = strs.sh_offset + sym.st_name;
            if (at >= strEnd)
                continue;
            const char *s = data.data() + at;
            const size_t len = strnlen(s, strEnd - at);
            const std::string name(s, len);
            for (const std::string &want : names) {
                const std::string mangledPrefix = "_Z" + std::to_string(want.size()) + want;
                const bool exact = name == want;
                if (!exact && name.compare(0, mangledPrefix.size(), mangledPrefix) != 0)
                    continue;
                FileSymbol fs;
                fs.wanted = want;
                fs.name = name;
                fs.mangled = !exact;
                fs.exported = sh.sh_type == SHT_DYNSYM && ELF64_ST_BIND(sym.st_info) != STB_LOCAL &&
                              ELF64_ST_VISIBILITY(sym.st_other) == STV_DEFAULT;
                found.push_back(fs);
            }
        }
    }
    return found;
}

} // namespace rt
} // namespace mirt
