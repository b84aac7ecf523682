#include "console.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace zel
{

namespace
{

// Names of files need not be UTF-8.
std::string lineOf(const Json &object)
{
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace

void Console::print(std::ostream &stream, const std::string &text)
{
    // Names of the user's may hold anything; a message stays one line.
    std::string line = text;
    std::replace_if(
        line.begin(), line.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    stream << line << '\n' << std::flush;
}

void Console::result(const std::string &text, const Json &object)
{
    progressBar("");
    print(*out_, json ? lineOf(object) : text);
}

void Console::info(const std::string &text, const Json &object)
{
    if (!quiet)
        result(text, object);
}

void Console::warning(const std::string &text)
{
    progressBar("");
    if (!quiet)
        print(*err_, json ? lineOf({{"event", "warning"}, {"message", text}}) : "zel: " + text);
}

void Console::error(const std::string &text, ExitCode code)
{
    progressBar("");
    print(
        *err_,
        json ? lineOf({{"event", "error"}, {"message", text}, {"exitCode", static_cast<int>(code)}})
             : "zel: " + text);
}

bool Console::showsProgress() const
{
    return !json && !quiet && isatty(STDERR_FILENO) == 1;
}

void Console::progressBar(const std::string &text)
{
    if (text.empty() && barWidth_ == 0)
        return;
    std::string padding(barWidth_ > text.size() ? barWidth_ - text.size() : 0, ' ');
    *err_ << '\r' << text << padding << (text.empty() ? "\r" : "") << std::flush;
    barWidth_ = text.size();
}

void Console::progressLine(const std::string &text, const Json &object)
{
    progressBar("");
    print(*err_, json ? lineOf(object) : text);
}

std::string sizeText(uint64_t bytes)
{
    const char *units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    auto value = static_cast<double>(bytes);
    size_t unit = 0;
    for (; value >= 1024 && unit + 1 < std::size(units); unit++)
        value /= 1024;
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
    return text;
}

std::string countText(uint64_t count, const std::string &unit)
{
    return std::to_string(count) + " " + unit + (count == 1 ? "" : "s");
}

} // namespace zel
