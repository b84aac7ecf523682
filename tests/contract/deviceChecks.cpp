// Character devices and module references.
#include <kernel/chardev.h>
#include <kernel/list.h>
#include <kernel/log.h>
#include <kernel/uaccess.h>

#include "contract.h"

namespace
{

const char *majorNumberIsRegisteredOnce(const Environment *environment)
{
    static struct chrdev_operations operations;
    static struct chrdev_operations others;
    operations.owner = others.owner = this_module();
    REQUIRE(register_chrdev(environment->freeMajor, "contract", &operations) == 0);
    REQUIRE(register_chrdev(environment->freeMajor, "contract", &others) < 0);
    unregister_chrdev(environment->freeMajor, "contract");
    REQUIRE(register_chrdev(environment->freeMajor, "contract", &others) == 0);
    unregister_chrdev(environment->freeMajor, "contract");
    return nullptr;
}

const char *moduleReferencesNest(const Environment *)
{
    struct module *self = this_module();
    REQUIRE(self != nullptr);
    REQUIRE(try_module_get(self) == 1);
    REQUIRE(try_module_get(self) == 1);
    module_put(self);
    module_put(self);
    return nullptr;
}

// The place of `text` in the first `length` characters of `log`, or -1.
int placeOf(const char *text, const char *log, int length)
{
    for (int at = 0; at < length; at++) {
        int same = 0;
        while (text[same] != 0 && at + same < length && log[at + same] == text[same])
            same++;
        if (text[same] == 0)
            return at;
    }
    return -1;
}

// Whether a line of the log's end is this one: its level, perhaps the time, and `text`.
bool isLogged(const Environment *environment, const char *level, const char *text)
{
    static char log[900];
    auto *user = reinterpret_cast<void *>(environment->user);
    int length = environment->readLog(environment->user, sizeof(log));
    if (length <= 0 || copy_from_user(log, user, static_cast<unsigned long>(length)) != 0)
        return false;
    int place = placeOf(text, log, length);
    while (place > 0 && log[place - 1] != '\n')
        place--;
    return place >= 0 && placeOf(level, log + place, length - place) == 0;
}

const char *messagesAreFormatted(const Environment *environment)
{
    const void *address = reinterpret_cast<const void *>(0xc0fe0);
    printk("<6>%s: %d %i %u %x %02x %09d %p %p %s\n", "numbers", -1, 7, 4000000000u, 0xabcu, 0xb,
           1234567, nullptr, address, "end");
    REQUIRE(isLogged(environment, "<6>",
                     sizeof(void *) == 4
                         ? "numbers: -1 7 4000000000 abc 0b 001234567 (null) 000c0fe0 end\n"
                         : "numbers: -1 7 4000000000 abc 0b 001234567 (null) "
                           "00000000000c0fe0 end\n"));
    printk("<3>%s: %lu %llu%s", "wide numbers", 4000000001ul, 0x123456789aull, "\n");
    REQUIRE(isLogged(environment, "<3>", "wide numbers: 4000000001 78187493530\n"));
    static const char *volatile none = nullptr; // which the compiler must not see
    printk("<4>%s: 50%% %s\n", "texts", none);
    REQUIRE(isLogged(environment, "<4>", "texts: 50% <NULL>\n"));
    return nullptr;
}

const char *listsLink(const Environment *)
{
    struct list_head head;
    struct list_head first;
    struct list_head second;
    INIT_LIST_HEAD(&head);
    REQUIRE(list_empty(&head));
    list_add_tail(&first, &head);
    list_add_tail(&second, &head);
    REQUIRE(head.next == &first && first.next == &second && second.next == &head);
    REQUIRE(head.prev == &second && second.prev == &first && first.prev == &head);
    list_del(&first);
    REQUIRE(head.next == &second && second.prev == &head);
    list_del(&second);
    REQUIRE(list_empty(&head));
    return nullptr;
}

const struct ContractCheck checks[] = {
    {"majorNumberIsRegisteredOnce", majorNumberIsRegisteredOnce},
    {"moduleReferencesNest", moduleReferencesNest},
    {"messagesAreFormatted", messagesAreFormatted},
    {"listsLink", listsLink},
};

} // namespace

constinit const struct ContractSubject deviceContract = subjectOf(checks);
