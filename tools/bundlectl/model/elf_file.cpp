#include "elf_file.h"

#include "common/unique_fd.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>

namespace Model {

namespace {

constexpr int OUR_ORDER = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? ELFDATA2LSB : ELFDATA2MSB;

/// Reads single values of a file. Values beyond its end are zero, so a broken file does no harm.
class Image {
public:
    explicit Image(const std::string& path) : m_fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))
    {
        std::array<unsigned char, EI_NIDENT> identity{};
        m_isElf = m_fd.IsOpen() && Read(0, identity.data(), identity.size()) &&
                  std::memcmp(identity.data(), ELFMAG, SELFMAG) == 0 && identity[EI_DATA] == OUR_ORDER;
        m_is64 = identity[EI_CLASS] == ELFCLASS64;
    }

    bool IsElf() const { return m_isElf; }
    bool Is64() const { return m_is64; }

    bool Read(std::uint64_t offset, void* data, std::size_t size) const
    {
        return ::pread(m_fd.Get(), data, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
    }

    template <class Number> std::uint64_t At(std::uint64_t offset) const
    {
        Number number = 0;
        return Read(offset, &number, sizeof number) ? number : 0;
    }

    /// A number of an address's size, at its position for 32 or for 64 bits.
    std::uint64_t Word(std::uint64_t base, std::uint64_t offset32, std::uint64_t offset64) const
    {
        return m_is64 ? At<std::uint64_t>(base + offset64) : At<std::uint32_t>(base + offset32);
    }

    std::string Text(std::uint64_t offset) const
    {
        std::array<char, 512> text{};
        const ssize_t size = ::pread(m_fd.Get(), text.data(), text.size() - 1, static_cast<off_t>(offset));
        return size > 0 ? std::string(text.data()) : std::string();
    }

private:
    Common::UniqueFd m_fd;
    bool m_isElf = false;
    bool m_is64 = false;
};

#define PLACE(type, member) offsetof(Elf32_##type, member), offsetof(Elf64_##type, member)

std::string InterpreterOf(const Image& image)
{
    const std::uint64_t table = image.Word(0, PLACE(Ehdr, e_phoff));
    const std::uint64_t size = image.Is64() ? sizeof(Elf64_Phdr) : sizeof(Elf32_Phdr);
    const std::uint64_t count =
        image.At<std::uint16_t>(image.Is64() ? offsetof(Elf64_Ehdr, e_phnum) : offsetof(Elf32_Ehdr, e_phnum));
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t head = table + i * size;
        if (image.At<std::uint32_t>(head) == PT_INTERP) {
            return image.Text(image.Word(head, PLACE(Phdr, p_offset)));
        }
    }
    return {};
}

/// A section of the file.
struct Section {
    std::uint64_t type = 0;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    std::uint64_t link = 0;
};

Section SectionAt(const Image& image, std::uint64_t number)
{
    const std::uint64_t size = image.Is64() ? sizeof(Elf64_Shdr) : sizeof(Elf32_Shdr);
    const std::uint64_t head = image.Word(0, PLACE(Ehdr, e_shoff)) + number * size;
    Section section;
    section.type = image.At<std::uint32_t>(head + offsetof(Elf32_Shdr, sh_type));
    section.offset = image.Word(head, PLACE(Shdr, sh_offset));
    section.size = image.Word(head, PLACE(Shdr, sh_size));
    section.link =
        image.At<std::uint32_t>(head + (image.Is64() ? offsetof(Elf64_Shdr, sh_link) : offsetof(Elf32_Shdr, sh_link)));
    return section;
}

bool SymbolsHave(const Image& image, const Section& symbols, const std::string& function)
{
    const Section names = SectionAt(image, symbols.link);
    const std::uint64_t size = image.Is64() ? sizeof(Elf64_Sym) : sizeof(Elf32_Sym);
    for (std::uint64_t place = symbols.offset; place + size <= symbols.offset + symbols.size; place += size) {
        const std::uint64_t section = image.At<std::uint16_t>(
            place + (image.Is64() ? offsetof(Elf64_Sym, st_shndx) : offsetof(Elf32_Sym, st_shndx)));
        if (section != SHN_UNDEF && image.Text(names.offset + image.At<std::uint32_t>(place)) == function) {
            return true;
        }
    }
    return false;
}

} // namespace

std::optional<ElfFile> ReadElf(const std::string& path)
{
    const Image image(path);
    if (!image.IsElf()) {
        return std::nullopt;
    }
    ElfFile file;
    file.bits = image.Is64() ? 64 : 32;
    file.machine = static_cast<int>(image.At<std::uint16_t>(offsetof(Elf32_Ehdr, e_machine)));
    file.interpreter = InterpreterOf(image);
    return file;
}

std::optional<bool> OffersFunction(const std::string& path, const std::string& function)
{
    const Image image(path);
    if (!image.IsElf()) {
        return std::nullopt;
    }
    const std::uint64_t count =
        image.At<std::uint16_t>(image.Is64() ? offsetof(Elf64_Ehdr, e_shnum) : offsetof(Elf32_Ehdr, e_shnum));
    for (std::uint64_t i = 0; i < count; ++i) {
        const Section section = SectionAt(image, i);
        if (section.type == SHT_DYNSYM) {
            return SymbolsHave(image, section, function);
        }
    }
    return std::nullopt;
}

} // namespace Model
