// The calling process's memory.
#include <kernel/uaccess.h>

#include "contract.h"

namespace
{

constexpr unsigned long badAddress = 0x10;

void *user(unsigned long address)
{
    return reinterpret_cast<void *>(address);
}

const char *copiesBothWays(const Environment *environment)
{
    unsigned char bytes[64];
    for (unsigned int i = 0; i < sizeof(bytes); i++)
        bytes[i] = static_cast<unsigned char>(200 - i);
    REQUIRE(copy_to_user(user(environment->user), bytes, sizeof(bytes)) == 0);
    unsigned char back[64] = {};
    REQUIRE(copy_from_user(back, user(environment->user), sizeof(back)) == 0);
    for (unsigned int i = 0; i < sizeof(bytes); i++)
        REQUIRE(back[i] == bytes[i]);
    REQUIRE(copy_from_user(back, user(environment->user + 10), 0) == 0);
    return nullptr;
}

// More than a few bytes are copied in words, which lie at multiples of four of the target: one that
// crosses into the hole is not copied at all, or, by a 64-bit kernel, as far as it goes.
const char *readIntoAHoleGivesTheRemainderAndZeroes(const Environment *environment)
{
    unsigned long last = environment->user + environment->userBytes - 5;
    alignas(8) unsigned char bytes[32];
    for (unsigned char &byte : bytes)
        byte = 0x3c;
    REQUIRE(copy_to_user(user(last), bytes, 5) == 0);
    for (unsigned char &byte : bytes)
        byte = 0xff;
    unsigned long left = copy_from_user(bytes, user(last), 30);
    REQUIRE(left == 26 || left == 25);
    for (unsigned int i = 0; i < 30; i++)
        REQUIRE(bytes[i] == (i < 30 - left ? 0x3c : 0));
    REQUIRE(bytes[30] == 0xff && bytes[31] == 0xff);
    REQUIRE(copy_from_user(bytes + 3, user(last), 29) == 24);
    for (unsigned int i = 3; i < 32; i++)
        REQUIRE(bytes[i] == (i < 8 ? 0x3c : 0));
    for (unsigned char &byte : bytes)
        byte = 0xff;
    REQUIRE(copy_from_user(bytes, user(last), 7) == 2);
    for (unsigned int i = 0; i < 8; i++)
        REQUIRE(bytes[i] == (i < 5 ? 0x3c : i < 7 ? 0 : 0xff));
    return nullptr;
}

const char *writeIntoAHoleGivesTheRemainder(const Environment *environment)
{
    unsigned char bytes[32];
    for (unsigned char &byte : bytes)
        byte = 0x4d;
    const struct {
        unsigned int before, count, left;
    } cases[] = {{5, 30, 25}, {8, 30, 22}, {3, 6, 3}, {4, 32, 28}};
    for (const auto &one : cases) {
        unsigned long last = environment->user + environment->userBytes - one.before;
        const unsigned char none[8] = {};
        REQUIRE(copy_to_user(user(last), none, one.before) == 0);
        REQUIRE(copy_to_user(user(last), bytes, one.count) == one.left);
        unsigned char back[8];
        REQUIRE(copy_from_user(back, user(last), one.before) == 0);
        for (unsigned int i = 0; i < one.before; i++)
            REQUIRE(back[i] == 0x4d);
    }
    return nullptr;
}

const char *badAddressesFailWhole(const Environment *environment)
{
    unsigned char bytes[16];
    const unsigned long addresses[] = {badAddress, 0, environment->user + environment->userBytes,
                                       0xfffffff8};
    for (unsigned long address : addresses) {
        for (unsigned char &byte : bytes)
            byte = 0xff;
        REQUIRE(copy_to_user(user(address), bytes, sizeof(bytes)) == sizeof(bytes));
        REQUIRE(copy_from_user(bytes, user(address), sizeof(bytes)) == sizeof(bytes));
        for (unsigned char byte : bytes)
            REQUIRE(byte == 0);
    }
    return nullptr;
}

const char *kernelAddressIsNoUserAddress(const Environment *)
{
    static unsigned char kernelBytes[16];
    unsigned char bytes[16];
    for (unsigned char &byte : bytes)
        byte = 0xff;
    REQUIRE(copy_to_user(kernelBytes, bytes, sizeof(bytes)) == sizeof(bytes));
    REQUIRE(kernelBytes[0] == 0);
    REQUIRE(copy_from_user(bytes, kernelBytes, sizeof(bytes)) == sizeof(bytes));
    REQUIRE(bytes[0] == 0);
    return nullptr;
}

const char *readOnlyMemoryIsNotWritten(const Environment *environment)
{
    unsigned char bytes[16] = {};
    REQUIRE(copy_from_user(bytes, user(environment->userReadOnly), sizeof(bytes)) == 0);
    REQUIRE(copy_to_user(user(environment->userReadOnly), bytes, sizeof(bytes)) == sizeof(bytes));
    REQUIRE(put_user(1, static_cast<u32 *>(user(environment->userReadOnly))) == -KERNEL_EFAULT);
    return nullptr;
}

const char *putUserWritesOneWord(const Environment *environment)
{
    unsigned char bytes[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    REQUIRE(copy_to_user(user(environment->user), bytes, sizeof(bytes)) == 0);
    REQUIRE(put_user(0x04030201, static_cast<u32 *>(user(environment->user))) == 0);
    REQUIRE(copy_from_user(bytes, user(environment->user), sizeof(bytes)) == 0);
    REQUIRE(bytes[0] == 1 && bytes[1] == 2 && bytes[2] == 3 && bytes[3] == 4 && bytes[4] == 1);
    REQUIRE(put_user(1, static_cast<u32 *>(user(badAddress))) == -KERNEL_EFAULT);
    REQUIRE(put_user(1, nullptr) == -14);
    return nullptr;
}

const struct ContractCheck checks[] = {
    {"copiesBothWays", copiesBothWays},
    {"readIntoAHoleGivesTheRemainderAndZeroes", readIntoAHoleGivesTheRemainderAndZeroes},
    {"writeIntoAHoleGivesTheRemainder", writeIntoAHoleGivesTheRemainder},
    {"badAddressesFailWhole", badAddressesFailWhole},
    {"kernelAddressIsNoUserAddress", kernelAddressIsNoUserAddress},
    {"readOnlyMemoryIsNotWritten", readOnlyMemoryIsNotWritten},
    {"putUserWritesOneWord", putUserWritesOneWord},
};

} // namespace

constinit const struct ContractSubject userMemoryContract = subjectOf(checks);
