#include <functional>

#include <host/block.h>
#include <host/faults.h>
#include <host/log.h>
#include <host/memory.h>
#include <host/module.h>
#include <kernel/block.h>
#include <kernel/fs.h>
#include <kernel/sync.h>
#include <kernel/task.h>

#include "support/hostTest.h"
#include "support/testDisk.h"
#include "unit/host/testDevice.h"

namespace
{

using test::TestDevice;

// What the module of these tests has for data, and what it does.
struct FakeData {
    int initialised = 7;
    int others[3] = {1, 2, 3};
};
struct FakeBss {
    int zero;
    struct rw_semaphore sem;
};
FakeData fakeData;
FakeBss fakeBss;
std::function<int()> onInit;
std::function<void()> onExit;

int fakeInit()
{
    return onInit ? onInit() : 0;
}

void fakeExit()
{
    if (onExit)
        onExit();
}

const host::ModuleImage &fakeImage()
{
    auto *data = reinterpret_cast<unsigned char *>(&fakeData);
    auto *bss = reinterpret_cast<unsigned char *>(&fakeBss);
    static const host::ModuleImage image{
        "fake", fakeInit, fakeExit, data, data + sizeof(fakeData), bss, bss + sizeof(fakeBss)};
    return image;
}

class Module : public test::SchedulerTest
{
protected:
    void TearDown() override
    {
        onInit = {};
        onExit = {};
        SchedulerTest::TearDown();
    }

    // Loads a module that does `act` when it is initialised, and unloads it.
    void leaveBehind(const std::function<void()> &act)
    {
        inKernel([&] {
            onInit = [&] {
                act();
                return 0;
            };
            EXPECT_EQ(host::loadModule(fakeImage()), 0);
            EXPECT_EQ(host::unloadModule(), 0);
        });
    }
};

INSTANTIATE_SCHEDULERS(Module);

TEST_P(Module, findsItsDataAsTheCompilerMadeItAtEachLoad)
{
    inKernel([] {
        int runs = 0;
        onInit = [&] {
            EXPECT_EQ(fakeData.initialised, 7);
            EXPECT_EQ(fakeData.others[2], 3);
            EXPECT_EQ(fakeBss.zero, 0);
            fakeData.initialised = 8;
            fakeData.others[2]++;
            fakeBss.zero = 1;
            runs++;
            return 0;
        };
        for (int i = 0; i < 3; i++) {
            ASSERT_EQ(host::loadModule(fakeImage()), 0);
            EXPECT_TRUE(host::moduleLoaded());
            EXPECT_EQ(host::unloadModule(), 0);
            EXPECT_FALSE(host::moduleLoaded());
        }
        EXPECT_EQ(runs, 3);
    });
}

TEST_P(Module, whoseInitFailsIsNotLoaded)
{
    inKernel([] {
        onInit = [] { return -KERNEL_ENOMEM; };
        onExit = [] { ADD_FAILURE() << "it was never loaded"; };
        EXPECT_EQ(host::loadModule(fakeImage()), -KERNEL_ENOMEM);
        EXPECT_FALSE(host::moduleLoaded());
        EXPECT_EQ(host::unloadModule(), -2);
    });
}

TEST_P(Module, whoseInitReturnsAPositiveValueIsLoadedWithAWarning)
{
    inKernel([] {
        onInit = [] { return 5; };
        EXPECT_EQ(host::loadModule(fakeImage()), 0);
        EXPECT_EQ(host::countLog("suspiciously returned 5"), 1u);
        EXPECT_EQ(host::loadModule(fakeImage()), -17);
        EXPECT_EQ(host::unloadModule(), 0);
    });
}

TEST_P(Module, isReferencedWhileItIsInitialised)
{
    inKernel([] {
        onInit = [] {
            EXPECT_EQ(host::moduleReferences(), 1);
            EXPECT_EQ(host::unloadModule(), -KERNEL_EBUSY);
            return 0;
        };
        EXPECT_EQ(host::loadModule(fakeImage()), 0);
        EXPECT_EQ(host::moduleReferences(), 0);
        EXPECT_EQ(host::unloadModule(), 0);
    });
}

TEST_P(Module, staysWhileItIsReferenced)
{
    inKernel([] {
        EXPECT_EQ(host::loadModule(fakeImage()), 0);
        EXPECT_EQ(try_module_get(this_module()), 1);
        EXPECT_EQ(try_module_get(this_module()), 1);
        EXPECT_EQ(host::moduleReferences(), 2);
        EXPECT_EQ(host::unloadModule(), -KERNEL_EBUSY);
        module_put(this_module());
        EXPECT_EQ(host::unloadModule(), -KERNEL_EBUSY);
        module_put(this_module());
        EXPECT_EQ(host::unloadModule(), 0);
    });
}

TEST_P(Module, takesNoReferencesWhileItGoesAway)
{
    inKernel([] {
        EXPECT_EQ(host::loadModule(fakeImage()), 0);
        host::setModuleGoing(true);
        EXPECT_EQ(try_module_get(this_module()), 0);
        host::setModuleGoing(false);
        onExit = [] { EXPECT_EQ(try_module_get(this_module()), 0); };
        EXPECT_EQ(host::unloadModule(), 0);
        EXPECT_EQ(try_module_get(this_module()), 0);
        EXPECT_EQ(try_module_get(nullptr), 1);
    });
}

TEST_P(Module, isReferencedByEachOpenFileOfItsDevice)
{
    inKernel([] {
        TestDevice device;
        device.operations.owner = this_module();
        onInit = [&] { return device.add(); };
        onExit = [&] {
            unregister_chrdev(TestDevice::major, "test");
            device.registered = false;
        };
        ASSERT_EQ(host::loadModule(fakeImage()), 0);
        host::Process process("user");
        int opened = 0;
        device.open = [&](struct file *) {
            EXPECT_EQ(host::moduleReferences(), 1);
            return opened;
        };
        device.release = [](struct file *) { EXPECT_EQ(host::moduleReferences(), 1); };
        int fd = process.open(TestDevice::path);
        EXPECT_EQ(host::unloadModule(), -KERNEL_EBUSY);
        EXPECT_EQ(process.close(fd), 0);
        EXPECT_EQ(host::moduleReferences(), 0);
        opened = 3;
        EXPECT_EQ(process.open(TestDevice::path), -KERNEL_EBUSY);
        EXPECT_EQ(host::moduleReferences(), 0) << "a refused open keeps nothing";
        host::setModuleGoing(true);
        opened = 0;
        EXPECT_EQ(process.open(TestDevice::path), 0) << "the device found it openable before";
        EXPECT_EQ(process.close(0), 0);
        EXPECT_EQ(host::unloadModule(), 0);
    });
}

TEST_P(Module, cannotBeOpenedWhileItIsUnloaded)
{
    inKernel([] {
        TestDevice device;
        device.operations.owner = this_module();
        onInit = [&] { return device.add(); };
        host::Process process("user");
        onExit = [&] {
            EXPECT_EQ(process.open(TestDevice::path), -KERNEL_ENXIO);
            unregister_chrdev(TestDevice::major, "test");
            device.registered = false;
        };
        ASSERT_EQ(host::loadModule(fakeImage()), 0);
        EXPECT_EQ(host::unloadModule(), 0);
    });
}

TEST_P(Module, referenceDroppedTooOftenIsReported)
{
    inKernel([&] {
        EXPECT_EQ(host::loadModule(fakeImage()), 0);
        module_put(this_module());
        EXPECT_EQ(host::moduleReferences(), 0);
        EXPECT_EQ(host::unloadModule(), 0);
    });
    expectViolation("module reference dropped too often");
}

TEST_P(Module, memoryLeftBehindIsReportedOnce)
{
    struct buffer_head *bh = nullptr;
    struct bio *bio = nullptr;
    leaveBehind([&] {
        EXPECT_NE(kmalloc(100, GFP_KERNEL), nullptr);
        EXPECT_NE(alloc_pages(GFP_KERNEL, 0), nullptr);
        EXPECT_NE(vmalloc(5000), nullptr);
        bh = alloc_buffer_head(GFP_KERNEL);
        bio = bio_alloc(GFP_KERNEL, 1);
    });
    EXPECT_EQ(host::memoryUse(), host::MemoryUse{});
    EXPECT_EQ(kernel().violations().size(), 5u);
    expectViolation("memory left behind by the module");
    inKernel([&] {
        free_buffer_head(bh);
        bio_put(bio);
    });
}

TEST_P(Module, kmapLeftBehindIsReported)
{
    struct page *page = nullptr;
    leaveBehind([&] {
        page = host::allocHostPage(true);
        EXPECT_NE(kmap(page), nullptr);
    });
    expectViolation("memory left behind by the module");
    inKernel([&] {
        kunmap(page);
        host::freeHostPage(page);
    });
    kernel().takeViolations(); // of this late kunmap, if any
}

TEST_P(Module, threadLeftBehindIsReported)
{
    inKernel([&] {
        static struct semaphore stay;
        static struct completion gone;
        onInit = [] {
            sema_init(&stay, 0);
            init_completion(&gone);
            auto thread = [](void *) {
                down(&stay);
                complete_and_exit(&gone, 0);
                return 0;
            };
            EXPECT_GT(kernel_thread(thread, nullptr, 0), 0);
            return 0;
        };
        EXPECT_EQ(host::loadModule(fakeImage()), 0);
        EXPECT_EQ(host::unloadModule(), 0);
        expectViolation("thread left behind by the module");
        up(&stay);
        wait_for_completion(&gone);
    });
}

TEST_P(Module, deviceLeftBehindIsReportedAndTakenAway)
{
    TestDevice device;
    leaveBehind([&] { EXPECT_EQ(device.add(), 0); });
    device.registered = false;
    expectViolation("character device left behind by the module: 240 (test)");
    inKernel([] {
        host::Process process("user");
        EXPECT_EQ(process.open(TestDevice::path), -KERNEL_ENXIO);
    });
}

TEST_P(Module, lockHeldInItsDataIsReported)
{
    leaveBehind([] {
        init_rwsem(&fakeBss.sem);
        down_read(&fakeBss.sem);
    });
    EXPECT_FALSE(kernel().takeViolations().empty());
}

make_request_fn *realFunction;

int hook(struct request_queue *queue, struct bio *bio)
{
    return realFunction(queue, bio);
}

void setHook(struct request_queue *queue, make_request_fn *function)
{
    unsigned long flags = spin_lock_irqsave(queue_lock(queue));
    queue_set_make_request_fn(queue, function);
    spin_unlock_irqrestore(queue_lock(queue), flags);
}

make_request_fn *getHook(struct request_queue *queue)
{
    unsigned long flags = spin_lock_irqsave(queue_lock(queue));
    make_request_fn *function = queue_make_request_fn(queue);
    spin_unlock_irqrestore(queue_lock(queue), flags);
    return function;
}

TEST_P(Module, hookLeftBehindIsReportedAndTakenAway)
{
    inKernel([&] {
        test::TestDisk disk;
        struct request_queue *queue = disk.disk().queue();
        realFunction = getHook(queue);
        onInit = [&] {
            setHook(queue, hook);
            return 0;
        };
        EXPECT_EQ(host::loadModule(fakeImage()), 0);
        EXPECT_EQ(host::unloadModule(), 0);
        expectViolation("queue left hooked by the module");
        EXPECT_EQ(getHook(queue), realFunction);
    });
}

TEST_P(Module, frozenDeviceLeftBehindIsReported)
{
    inKernel([&] {
        test::TestDisk disk;
        struct super_block *sb = nullptr;
        onInit = [&] {
            sb = freeze_bdev(disk.bdev());
            return 0;
        };
        EXPECT_EQ(host::loadModule(fakeImage()), 0);
        kernel().takeViolations(); // s_umount is held on the way out of the system call
        EXPECT_EQ(host::unloadModule(), 0);
        std::vector<std::string> violations = kernel().takeViolations();
        ASSERT_FALSE(violations.empty());
        EXPECT_EQ(violations.front().find("device left frozen by the module"), 0u);
        EXPECT_EQ(thaw_bdev(disk.bdev(), sb), 0);
    });
}

TEST_P(Module, isUnloadedOnlyWhenNoTaskIsInsideItsHooks)
{
    inKernel([&] {
        test::TestDisk disk;
        struct request_queue *queue = disk.disk().queue();
        realFunction = getHook(queue);
        static struct completion entered;
        static struct completion go;
        static bool inside;
        init_completion(&entered);
        init_completion(&go);
        inside = true;
        make_request_fn *slowHook = [](struct request_queue *q, struct bio *bio) {
            complete(&entered);
            wait_for_completion(&go);
            host::sleepNanoseconds(2'000'000);
            int result = realFunction(q, bio);
            inside = false;
            return result;
        };
        onInit = [&] {
            setHook(queue, slowHook);
            return 0;
        };
        onExit = [&] {
            setHook(queue, realFunction);
            complete(&go);
        };
        EXPECT_EQ(host::loadModule(fakeImage()), 0);
        host::Task writer = host::spawn("writer", [&] {
            std::vector<unsigned char> bytes(4096, 1);
            EXPECT_EQ(host::writeDevice(disk.bdev(), 8, bytes.data(), bytes.size()), 0);
        });
        wait_for_completion(&entered);
        EXPECT_EQ(host::unloadModule(), 0);
        EXPECT_FALSE(inside);
        writer.join();
    });
}

} // namespace
