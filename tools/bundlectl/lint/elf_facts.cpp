#include "elf_facts.h"

#include "common/unique_fd.h"

#include <fcntl.h>
#include <gelf.h>
#include <libelf.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <memory>
#include <string_view>

namespace Lint {

namespace {

struct ElfEnd {
    void operator()(Elf* elf) const { ::elf_end(elf); }
};

/// "GLIBC_2.34" as a version. Empty for other names.
std::optional<Version> GlibcVersionOf(const char* name)
{
    constexpr std::string_view prefix = "GLIBC_";
    const std::string_view text = name == nullptr ? "" : name;
    if (text.substr(0, prefix.size()) != prefix) {
        return std::nullopt;
    }
    Version version;
    const char* const end = text.data() + text.size();
    const auto major = std::from_chars(text.data() + prefix.size(), end, version.first);
    if (major.ec != std::errc() || major.ptr == end || *major.ptr != '.') {
        return std::nullopt;
    }
    return std::from_chars(major.ptr + 1, end, version.second).ec == std::errc() ? std::optional(version)
                                                                                 : std::nullopt;
}

void TakeLater(std::optional<Version>& kept, const std::optional<Version>& other)
{
    if (other && (!kept || *kept < *other)) {
        kept = other;
    }
}

class Reader {
public:
    explicit Reader(Elf* elf) : m_elf(elf) {}
    std::optional<ElfFacts> Read();

private:
    void ReadSection(Elf_Scn* section);
    void ReadDynamic(Elf_Data* data, const GElf_Shdr& head);
    void ReadSymbols(Elf_Data* data, const GElf_Shdr& head);
    void ReadVersionsNeeded(Elf_Data* data, const GElf_Shdr& head);
    void ReadVersionsOffered(Elf_Data* data, const GElf_Shdr& head);
    void ReadInterpreter();
    const char* Text(const GElf_Shdr& head, std::size_t offset) const;

    Elf* const m_elf;
    ElfFacts m_facts;
};

std::optional<ElfFacts> Reader::Read()
{
    GElf_Ehdr head;
    if (::elf_kind(m_elf) != ELF_K_ELF || ::gelf_getehdr(m_elf, &head) == nullptr) {
        return std::nullopt;
    }
    m_facts.machine = head.e_machine;
    m_facts.bits = ::gelf_getclass(m_elf) == ELFCLASS64 ? 64 : 32;
    m_facts.isShared = head.e_type == ET_DYN;
    ReadInterpreter();
    for (Elf_Scn* section = ::elf_nextscn(m_elf, nullptr); section != nullptr;
         section = ::elf_nextscn(m_elf, section)) {
        ReadSection(section);
    }
    return std::move(m_facts);
}

void Reader::ReadInterpreter()
{
    std::size_t count = 0;
    if (::elf_getphdrnum(m_elf, &count) != 0) {
        return;
    }
    for (std::size_t i = 0; i < count; ++i) {
        GElf_Phdr segment;
        std::size_t size = 0;
        const char* const file = ::elf_rawfile(m_elf, &size);
        if (::gelf_getphdr(m_elf, static_cast<int>(i), &segment) != nullptr && segment.p_type == PT_INTERP &&
            file != nullptr && segment.p_offset < size && segment.p_filesz <= size - segment.p_offset) {
            const std::string_view text(file + segment.p_offset, static_cast<std::size_t>(segment.p_filesz));
            m_facts.interpreter = text.substr(0, text.find('\0'));
        }
    }
}

void Reader::ReadSection(Elf_Scn* section)
{
    GElf_Shdr head;
    if (::gelf_getshdr(section, &head) == nullptr) {
        return;
    }
    Elf_Data* const data = ::elf_getdata(section, nullptr);
    if (data == nullptr || data->d_buf == nullptr) {
        return;
    }
    switch (head.sh_type) {
    case SHT_DYNAMIC:
        ReadDynamic(data, head);
        break;
    case SHT_DYNSYM:
        ReadSymbols(data, head);
        break;
    case SHT_GNU_verneed:
        ReadVersionsNeeded(data, head);
        break;
    case SHT_GNU_verdef:
        ReadVersionsOffered(data, head);
        break;
    default:
        break;
    }
}

void Reader::ReadDynamic(Elf_Data* data, const GElf_Shdr& head)
{
    GElf_Dyn entry;
    for (int i = 0; ::gelf_getdyn(data, i, &entry) != nullptr && entry.d_tag != DT_NULL; ++i) {
        const std::string text = Text(head, static_cast<std::size_t>(entry.d_un.d_val));
        if (entry.d_tag == DT_NEEDED) {
            m_facts.needed.push_back(text);
        } else if (entry.d_tag == DT_RUNPATH || entry.d_tag == DT_RPATH) {
            for (std::size_t begin = 0; begin <= text.size();) {
                const std::size_t end = std::min(text.find(':', begin), text.size());
                m_facts.runPaths.push_back(text.substr(begin, end - begin));
                begin = end + 1;
            }
        }
    }
}

void Reader::ReadSymbols(Elf_Data* data, const GElf_Shdr& head)
{
    GElf_Sym symbol;
    for (int i = 0; ::gelf_getsym(data, i, &symbol) != nullptr; ++i) {
        const bool isVisible = GELF_ST_BIND(symbol.st_info) != STB_LOCAL;
        if (isVisible && symbol.st_name != 0) {
            (symbol.st_shndx == SHN_UNDEF ? m_facts.imported : m_facts.exported).insert(Text(head, symbol.st_name));
        }
    }
}

void Reader::ReadVersionsNeeded(Elf_Data* data, const GElf_Shdr& head)
{
    GElf_Verneed need;
    std::size_t place = 0;
    while (::gelf_getverneed(data, static_cast<int>(place), &need) != nullptr) {
        GElf_Vernaux version;
        std::size_t inner = place + need.vn_aux;
        for (int i = 0; i < need.vn_cnt && ::gelf_getvernaux(data, static_cast<int>(inner), &version) != nullptr; ++i) {
            TakeLater(m_facts.glibcNeeded, GlibcVersionOf(Text(head, version.vna_name)));
            inner += version.vna_next;
        }
        if (need.vn_next == 0) {
            return;
        }
        place += need.vn_next;
    }
}

void Reader::ReadVersionsOffered(Elf_Data* data, const GElf_Shdr& head)
{
    GElf_Verdef definition;
    std::size_t place = 0;
    while (::gelf_getverdef(data, static_cast<int>(place), &definition) != nullptr) {
        GElf_Verdaux version;
        if (::gelf_getverdaux(data, static_cast<int>(place + definition.vd_aux), &version) != nullptr) {
            TakeLater(m_facts.glibcOffered, GlibcVersionOf(Text(head, version.vda_name)));
        }
        if (definition.vd_next == 0) {
            return;
        }
        place += definition.vd_next;
    }
}

const char* Reader::Text(const GElf_Shdr& head, std::size_t offset) const
{
    const char* const text = ::elf_strptr(m_elf, head.sh_link, offset);
    return text == nullptr ? "" : text;
}

} // namespace

std::optional<ElfFacts> ReadElfFacts(const std::string& path)
{
    static const bool isReady = ::elf_version(EV_CURRENT) != EV_NONE;
    const Common::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!isReady || !fd.IsOpen()) {
        return std::nullopt;
    }
    const std::unique_ptr<Elf, ElfEnd> elf(::elf_begin(fd.Get(), ELF_C_READ_MMAP, nullptr));
    return elf ? Reader(elf.get()).Read() : std::nullopt;
}

} // namespace Lint
