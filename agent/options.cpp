#include "options.h"

#include <string.h>

namespace zelsend
{

const char helpText[] =
    "usage: zelsend [options] DEVICE\n"
    "       zelsend [options] --confirm ID DEVICE\n"
    "\n"
    "Takes a snapshot of the mounted block device DEVICE (a path, or MAJOR:MINOR) and writes it "
    "to\n"
    "standard output as a stream for `zel receive`: every block, or those that changed since an\n"
    "earlier stream.\n"
    "\n"
    "  --parent ID       the receiver's newest complete point of DEVICE; `none` if it has none.\n"
    "                    Without this: the newest point that was confirmed\n"
    "  --confirm ID      only note that the stream ID arrived whole; send nothing\n"
    "  --full            send every block\n"
    "  --state DIR       where session keys and change maps are kept (/var/lib/zelsend)\n"
    "  --cache BLOCKS    most blocks of old contents to hold in memory (as many as fill 64 MiB)\n"
    "  --control PATH    the control device (/dev/zelmod)\n"
    "  --machine SOCKET  back up a device of the machine that listens there\n"
    "  --json            every line on standard error is a JSON object\n"
    "  -q                no messages but errors\n"
    "  --help, --version\n"
    "\n"
    "Progress is shown on a terminal; elsewhere SIGUSR1 prints one line of it.\n"
    "Exit codes: 0 done; 1 bad arguments; 2 differs or corrupt; 3 fell short (blocks unreadable,\n"
    "backup spoilt, stream not taken); 4 device refused; 130 interrupted.\n";

namespace
{

// A decimal number up to `limit`, ending at `end`; false where there is none.
bool parseNumber(const char *text, const char *end, uint32_t limit, uint32_t *number)
{
    if (text == end) {
        return false;
    }
    uint64_t value = 0;
    for (; text != end; text++) {
        if (*text < '0' || *text > '9') {
            return false;
        }
        value = value * 10 + static_cast<uint64_t>(*text - '0');
        if (value > limit) {
            return false;
        }
    }
    *number = static_cast<uint32_t>(value);
    return true;
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

Outcome setParent(const char *value, Options *options)
{
    if (*value == '\0' || strcmp(value, "none") == 0) {
        options->parent = Parent::Nothing;
        return {};
    }
    if (!parseStreamId(value, &options->parentId)) {
        return failure(ExitCode::Usage,
                       "--parent: '%s' is not a stream id (32 hexadecimal digits, or none)", value);
    }
    options->parent = Parent::Named;
    return {};
}

Outcome setConfirm(const char *value, Options *options)
{
    options->action = Action::Confirm;
    if (!parseStreamId(value, &options->parentId)) {
        return failure(ExitCode::Usage,
                       "--confirm: '%s' is not a stream id (32 hexadecimal digits)", value);
    }
    return {};
}

Outcome setCache(const char *value, Options *options)
{
    if (!parseNumber(value, value + strlen(value), UINT32_MAX, &options->cacheBlocks)) {
        return failure(ExitCode::Usage, "--cache: '%s' is not a number of blocks", value);
    }
    options->cacheGiven = true;
    return {};
}

Outcome setState(const char *value, Options *options)
{
    options->stateRoot = value;
    return {};
}

Outcome setControl(const char *value, Options *options)
{
    options->control = value;
    return {};
}

Outcome setMachine(const char *value, Options *options)
{
    options->machine = value;
    return {};
}

struct ValueOption {
    const char *name;
    Outcome (*set)(const char *value, Options *options);
};

constexpr ValueOption valueOptions[] = {
    {"--parent", setParent}, {"--confirm", setConfirm}, {"--cache", setCache},
    {"--state", setState},   {"--control", setControl}, {"--machine", setMachine},
};

// The option of `valueOptions` that `argument` is ("--name" or "--name=value"; then *value is set),
// or null.
const ValueOption *findValueOption(const char *argument, const char **value)
{
    for (const ValueOption &option : valueOptions) {
        size_t length = strlen(option.name);
        if (strncmp(argument, option.name, length) != 0) {
            continue;
        }
        if (argument[length] == '\0') {
            *value = nullptr;
            return &option;
        }
        if (argument[length] == '=') {
            *value = argument + length + 1;
            return &option;
        }
    }
    return nullptr;
}

bool setFlag(const char *argument, Options *options)
{
    if (strcmp(argument, "--full") == 0) {
        options->full = true;
    } else if (strcmp(argument, "--json") == 0) {
        options->json = true;
    } else if (strcmp(argument, "-q") == 0 || strcmp(argument, "--quiet") == 0) {
        options->quiet = true;
    } else if (strcmp(argument, "--help") == 0 || strcmp(argument, "-h") == 0) {
        options->action = Action::Help;
    } else if (strcmp(argument, "--version") == 0) {
        options->action = Action::Version;
    } else {
        return false;
    }
    return true;
}

// MAJOR:MINOR, as the control records can carry it: 12 and 20 bits.
void readDeviceNumber(Options *options)
{
    const char *colon = strchr(options->device, ':');
    if (colon != nullptr) {
        options->deviceIsNumber =
            parseNumber(options->device, colon, 0xfff, &options->major) &&
            parseNumber(colon + 1, colon + strlen(colon), 0xfffff, &options->minor);
    }
}

} // namespace

bool parseStreamId(const char *text, zel::StreamId *id)
{
    if (strlen(text) != 2 * sizeof(id->bytes)) {
        return false;
    }
    for (size_t i = 0; i < sizeof(id->bytes); i++) {
        int high = hexDigit(text[2 * i]);
        int low = hexDigit(text[2 * i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        id->bytes[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return true;
}

StreamIdText formatStreamId(const zel::StreamId &id)
{
    StreamIdText result;
    char *to = result.text;
    for (uint8_t byte : id.bytes) {
        *to++ = "0123456789abcdef"[byte >> 4];
        *to++ = "0123456789abcdef"[byte & 15];
    }
    *to = '\0';
    return result;
}

Outcome parseOptions(int count, const char *const *arguments, Options *options)
{
    // These two decide how an error in the others is reported.
    for (int i = 1; i < count && strcmp(arguments[i], "--") != 0; i++) {
        options->json |= strcmp(arguments[i], "--json") == 0;
        options->quiet |= strcmp(arguments[i], "-q") == 0 || strcmp(arguments[i], "--quiet") == 0;
    }
    bool onlyOperands = false;
    for (int i = 1; i < count; i++) {
        const char *argument = arguments[i];
        if (!onlyOperands && strcmp(argument, "--") == 0) {
            onlyOperands = true;
        } else if (onlyOperands || argument[0] != '-') {
            if (options->device != nullptr) {
                return failure(ExitCode::Usage, "one DEVICE only; '%s' is one too many", argument);
            }
            options->device = argument;
        } else if (const char *value = nullptr;
                   const ValueOption *option = findValueOption(argument, &value)) {
            if (value == nullptr) {
                if (i + 1 == count) {
                    return failure(ExitCode::Usage, "%s needs a value", option->name);
                }
                value = arguments[++i];
            }
            if (Outcome outcome = option->set(value, options); !outcome) {
                return outcome;
            }
        } else if (!setFlag(argument, options)) {
            return failure(ExitCode::Usage, "unknown option '%s' (see --help)", argument);
        }
        if (options->action == Action::Help || options->action == Action::Version) {
            return {};
        }
    }
    if (options->device == nullptr || options->device[0] == '\0') {
        return failure(ExitCode::Usage, "no DEVICE given (see --help)");
    }
    if (options->action == Action::Confirm && options->parent != Parent::Unsaid) {
        return failure(ExitCode::Usage, "--confirm and --parent exclude each other");
    }
    readDeviceNumber(options);
    return {};
}

} // namespace zelsend
