// The check of a shared object before the loader sees it.

#include "osa/common/elf_check.h"

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

namespace osa
{

namespace
{

using Header = ElfW(Ehdr);
using ProgramHeader = ElfW(Phdr);

#if defined(__x86_64__)
constexpr unsigned kOwnMachine = EM_X86_64;
#elif defined(__aarch64__)
constexpr unsigned kOwnMachine = EM_AARCH64;
#elif defined(__arm__)
constexpr unsigned kOwnMachine = EM_ARM;
#elif defined(__i386__)
constexpr unsigned kOwnMachine = EM_386;
#elif defined(__riscv)
constexpr unsigned kOwnMachine = EM_RISCV;
#else
#error "name this processor's ELF machine here"
#endif

constexpr unsigned kOwnClass = sizeof(void *) == 8 ? ELFCLASS64 : ELFCLASS32;
constexpr unsigned kOwnOrder =
    std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;

struct MachineName {
    unsigned machine;
    const char *name;
};

constexpr MachineName kMachineNames[] = {
    {EM_X86_64, "64-bit x86"}, {EM_386, "32-bit x86"},      {EM_AARCH64, "64-bit ARM"},
    {EM_ARM, "32-bit ARM"},    {EM_RISCV, "RISC-V"},        {EM_MIPS, "MIPS"},
    {EM_PPC64, "PowerPC"},     {EM_LOONGARCH, "LoongArch"},
};

const char *machine_name(unsigned machine)
{
    for (const MachineName &entry : kMachineNames)
        if (entry.machine == machine)
            return entry.name;
    return "an unknown processor";
}

class File
{
public:
    // Without blocking: a pipe would hold the caller until somebody writes to it.
    explicit File(const char *path) : m_descriptor(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK))
    {
        struct stat status;
        if (m_descriptor < 0 || fstat(m_descriptor, &status) != 0)
            return;
        m_is_regular = S_ISREG(status.st_mode);
        m_size = m_is_regular ? static_cast<uint64_t>(status.st_size) : 0;
    }
    ~File()
    {
        if (m_descriptor >= 0)
            close(m_descriptor);
    }
    File(const File &) = delete;
    File &operator=(const File &) = delete;

    bool is_open() const
    {
        return m_descriptor >= 0;
    }
    bool is_regular() const
    {
        return m_is_regular;
    }
    bool holds(uint64_t offset, uint64_t length) const
    {
        return offset <= m_size && length <= m_size - offset;
    }
    bool read_at(uint64_t offset, void *target, size_t length) const
    {
        return holds(offset, length) &&
               pread(m_descriptor, target, length, static_cast<off_t>(offset)) ==
                   static_cast<ssize_t>(length);
    }

private:
    int m_descriptor;
    bool m_is_regular = false;
    uint64_t m_size = 0;
};

// Each check answers with what is wrong, or null.

const char *check_identity(const Header &header)
{
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
        return "not an ELF file";
    if (header.e_ident[EI_CLASS] != kOwnClass)
        return kOwnClass == ELFCLASS64 ? "not a 64-bit library, as this program needs"
                                       : "not a 32-bit library, as this program needs";
    if (header.e_ident[EI_DATA] != kOwnOrder)
        return "built for the other byte order";
    return nullptr;
}

const char *check_form(const Header &header)
{
    if (header.e_type != ET_DYN)
        return "not a shared library";
    if (header.e_phentsize != sizeof(ProgramHeader) || header.e_phnum == 0)
        return "a damaged library: its program header table is malformed";
    return nullptr;
}

const char *check_segments(const File &file, const Header &header)
{
    bool has_code = false;
    bool has_dynamic = false;
    for (uint64_t index = 0; index < header.e_phnum; ++index) {
        const uint64_t place = index * sizeof(ProgramHeader);
        ProgramHeader segment;
        if (header.e_phoff > UINT64_MAX - place ||
            !file.read_at(header.e_phoff + place, &segment, sizeof(segment)))
            return "truncated: its program header table lies past the end of the file";
        has_code |= segment.p_type == PT_LOAD;
        has_dynamic |= segment.p_type == PT_DYNAMIC;
        if ((segment.p_type == PT_LOAD || segment.p_type == PT_DYNAMIC) &&
            !file.holds(segment.p_offset, segment.p_filesz))
            return "truncated: a segment reaches past the end of the file";
    }
    return has_code && has_dynamic ? nullptr : "not a shared library";
}

} // namespace

bool elf_check(const char *path, char *reason, size_t size)
{
    const File file(path);
    if (!file.is_open()) {
        std::snprintf(reason, size, "%s", std::strerror(errno));
        return false;
    }
    if (!file.is_regular()) {
        std::snprintf(reason, size, "not a regular file");
        return false;
    }
    Header header;
    const bool whole_header = file.read_at(0, &header, sizeof(header));
    if (!whole_header && !file.read_at(0, header.e_ident, sizeof(header.e_ident))) {
        std::snprintf(reason, size, "not an ELF file");
        return false;
    }
    const char *fault = check_identity(header);
    if (fault == nullptr && !whole_header)
        fault = "truncated: it ends within its ELF header";
    if (fault == nullptr && header.e_machine != kOwnMachine) {
        std::snprintf(reason, size, "built for %s (machine %u); this program runs on %s",
                      machine_name(header.e_machine), header.e_machine, machine_name(kOwnMachine));
        return false;
    }
    if (fault == nullptr)
        fault = check_form(header);
    if (fault == nullptr)
        fault = check_segments(file, header);
    if (fault != nullptr)
        std::snprintf(reason, size, "%s", fault);
    return fault == nullptr;
}

bool is_function(const void *address)
{
    Dl_info nearest;
    const ElfW(Sym) *symbol = nullptr;
    void **const to_symbol = reinterpret_cast<void **>(const_cast<ElfW(Sym) **>(&symbol));
    // An indirect function may lead to where no symbol is.
    if (dladdr1(address, &nearest, to_symbol, RTLD_DL_SYMENT) == 0 || symbol == nullptr ||
        nearest.dli_saddr != address)
        return true;
    const unsigned type = ELF64_ST_TYPE(symbol->st_info); // the same for 32 bits
    return type != STT_OBJECT && type != STT_COMMON && type != STT_TLS;
}

} // namespace osa
