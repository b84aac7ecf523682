/* The kernel log, printk's formats, and BUG(). */
#include <host/log.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <kernel/log.h>

#include "core.h"
#include "log.h"

namespace host
{
namespace
{

HiddenMutex logMutex;
std::vector<std::string> messages;
bool echoing;
std::atomic<void (*)(const std::string &)> logReader{nullptr};

// `format` is one conversion of a kernel message, put together from its parts.
template<class Value> void appendField(std::string &text, const std::string &format, Value value)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    int length = std::snprintf(nullptr, 0, format.c_str(), value);
    std::string field(static_cast<std::size_t>(length) + 1, 0);
    std::snprintf(field.data(), field.size(), format.c_str(), value);
#pragma GCC diagnostic pop
    field.pop_back();
    text += field;
}

/* One conversion: "%" flags width precision length letter. */
struct Conversion {
    std::string shape = "%"; // up to the precision
    std::string length;
    char letter = 0;
};

void appendInteger(std::string &text, const Conversion &conversion, std::va_list &arguments)
{
    std::string format = conversion.shape + conversion.length + conversion.letter;
    if (conversion.length == "ll")
        appendField(text, format, va_arg(arguments, long long));
    else if (conversion.length == "l" || conversion.length == "z" || conversion.length == "t")
        appendField(text, format, va_arg(arguments, long));
    else
        appendField(text, format, va_arg(arguments, int));
}

// The kernel's own ideas: a NULL string is "<NULL>", a NULL pointer "(null)", and a pointer has all
// its digits and no prefix.
void appendConversion(std::string &text, const Conversion &conversion, std::va_list &arguments)
{
    switch (conversion.letter) {
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
    case 'o':
        appendInteger(text, conversion, arguments);
        break;
    case 'c':
        text += static_cast<char>(va_arg(arguments, int));
        break;
    case 's': {
        const char *value = va_arg(arguments, const char *);
        appendField(text, conversion.shape + "s", value != nullptr ? value : "<NULL>");
        break;
    }
    case 'p': {
        const void *value = va_arg(arguments, const void *);
        if (value == nullptr)
            text += "(null)";
        else
            appendField(text, sizeof(value) == 4 ? "%08lx" : "%016lx",
                        reinterpret_cast<unsigned long>(value));
        break;
    }
    case '%':
        text += '%';
        break;
    default:
        text += conversion.shape + conversion.length + conversion.letter;
        break;
    }
}

std::string formatMessage(const char *format, std::va_list &arguments)
{
    std::string text;
    for (const char *at = format; *at != 0; at++) {
        if (*at != '%') {
            text += *at;
            continue;
        }
        Conversion conversion;
        at++;
        while (*at != 0 && std::strchr("-+ #0123456789.*", *at) != nullptr) {
            if (*at == '*')
                conversion.shape += std::to_string(va_arg(arguments, int));
            else
                conversion.shape += *at;
            at++;
        }
        while (*at != 0 && std::strchr("lhzt", *at) != nullptr)
            conversion.length += *at++;
        if (*at == 0)
            break;
        conversion.letter = *at;
        appendConversion(text, conversion, arguments);
    }
    return text;
}

} // namespace

void startLog(bool echo)
{
    HiddenScope scope(logMutex);
    messages.clear();
    echoing = echo;
}

std::string lastMessage()
{
    HiddenScope scope(logMutex);
    return messages.empty() ? "" : messages.back();
}

std::vector<std::string> kernelLog()
{
    HiddenScope scope(logMutex);
    return messages;
}

void clearKernelLog()
{
    HiddenScope scope(logMutex);
    messages.clear();
}

unsigned countLog(const std::string &text)
{
    unsigned count = 0;
    for (const std::string &message : kernelLog())
        count += message.find(text) != std::string::npos ? 1 : 0;
    return count;
}

void onKernelLog(void (*reader)(const std::string &message))
{
    logReader = reader;
}

} // namespace host

using namespace host;

int printk(const char *format, ...)
{
    pointOfSwitch();
    std::va_list arguments;
    va_start(arguments, format);
    std::string message = formatMessage(format, arguments);
    va_end(arguments);
    bool echo;
    {
        HiddenScope scope(logMutex);
        messages.push_back(message);
        echo = echoing;
    }
    if (echo)
        std::fputs(message.c_str(), stderr);
    if (auto reader = logReader.load())
        reader(message);
    return static_cast<int>(message.size());
}

void BUG()
{
    std::fprintf(stderr, "kernel BUG in %s, last message: %s\n",
                 core != nullptr ? currentName().c_str() : "no kernel", lastMessage().c_str());
    std::abort();
}
