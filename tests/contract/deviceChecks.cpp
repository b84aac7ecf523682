// Character devices and module references.
#include <kernel/chardev.h>
#include <kernel/list.h>
#include <kernel/log.h>

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

const char *messagesAreFormatted(const Environment *)
{
    printk("<6>%s: %d %u %02x %lu %p %s\n", "contract", -1, 4000000000u, 0xb, 7ul, nullptr, "end");
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
