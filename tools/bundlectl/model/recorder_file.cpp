#include "recorder_file.h"

#include "files.h"

#include "common/unique_fd.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <string_view>
#include <utility>

namespace Model {

namespace {

using Common::UniqueFd;

constexpr std::string_view FORMAT = "bundlectl-launches 1\n";
constexpr std::size_t FIELDS = 6;

/// A name in the file. Escaped names have no control characters, so a tab is always a separator.
std::string Field(std::string name)
{
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == '\t' || c == '\n'; }, '?');
    return name;
}

std::string LineOf(const RecordedLaunch& launch)
{
    return Field(launch.boot) + '\t' + std::to_string(launch.pid) + '\t' + std::to_string(launch.startTicks) + '\t' +
           std::to_string(launch.server) + '\t' + Field(launch.bundle) + '\t' + Field(launch.item) + '\n';
}

template <class Number> bool Parse(std::string_view text, Number& number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

bool ParseLine(std::string_view line, RecordedLaunch& launch)
{
    std::array<std::string_view, FIELDS> fields;
    for (std::size_t i = 0; i < FIELDS; ++i) {
        const std::size_t end = line.find('\t');
        if ((end == std::string_view::npos) != (i + 1 == FIELDS)) {
            return false;
        }
        fields[i] = line.substr(0, end);
        line.remove_prefix(std::min(end + 1, line.size()));
    }
    launch.boot = fields[0];
    launch.bundle = fields[4];
    launch.item = fields[5];
    return Parse(fields[1], launch.pid) && Parse(fields[2], launch.startTicks) && Parse(fields[3], launch.server);
}

bool WriteWhole(int fd, std::string_view text)
{
    return ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

} // namespace

RecorderFile::RecorderFile(std::string path, std::size_t limit) : m_path(std::move(path)), m_limit(limit) {}

bool RecorderFile::Append(const RecordedLaunch& launch) const
{
    const std::string text = ReadFileAtMost(m_path, 2 * m_limit).value_or("");
    const bool isOurs = text.compare(0, FORMAT.size(), FORMAT) == 0;
    const std::string line = LineOf(launch);
    if (!isOurs || text.size() + line.size() > m_limit) {
        return Shorten((isOurs ? text.substr(FORMAT.size()) : std::string()) + line);
    }
    const UniqueFd fd(::open(m_path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    // If a full disk has cut off the last line, first ends that line.
    return fd.IsOpen() && WriteWhole(fd.Get(), text.back() == '\n' ? line : '\n' + line);
}

bool RecorderFile::Shorten(const std::string& text) const
{
    std::string_view rest = text;
    if (rest.size() > m_limit / 2) {
        rest.remove_prefix(rest.size() - m_limit / 2);
        rest.remove_prefix(std::min(rest.find('\n'), rest.size() - 1) + 1);
    }
    const std::string beside = m_path + ".new";
    const UniqueFd fd(::open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    return fd.IsOpen() && WriteWhole(fd.Get(), std::string(FORMAT).append(rest)) &&
           std::rename(beside.c_str(), m_path.c_str()) == 0;
}

std::vector<RecordedLaunch> RecorderFile::Read() const
{
    const std::string text = ReadFileAtMost(m_path, 2 * m_limit).value_or("");
    std::vector<RecordedLaunch> launches;
    if (text.compare(0, FORMAT.size(), FORMAT) != 0) {
        return launches;
    }
    for (std::size_t begin = FORMAT.size(); begin < text.size();) {
        const std::size_t end = text.find('\n', begin);
        if (end == std::string::npos) {
            break;
        }
        RecordedLaunch launch;
        if (ParseLine(std::string_view(text).substr(begin, end - begin), launch)) {
            launches.push_back(std::move(launch));
        }
        begin = end + 1;
    }
    return launches;
}

std::string BootId()
{
    std::string id = ReadFileAtMost("/proc/sys/kernel/random/boot_id").value_or("");
    id.resize(std::min(id.find('\n'), id.size()));
    return id;
}

} // namespace Model
