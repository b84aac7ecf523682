#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include <host/block.h>
#include <host/filesystem.h>
#include <host/kernel.h>
#include <host/task.h>

#include "extFs.h"
#include "image.h"
#include "manifest.h"
#include "writers.h"

namespace
{

constexpr std::uint64_t sectorBytes = 512;

// A directory of the test's own, removed with everything in it.
class Directory
{
public:
    Directory()
    {
        std::string path = (std::filesystem::temp_directory_path() / "extFsTest.XXXXXX").string();
        if (mkdtemp(path.data()) == nullptr)
            throw std::runtime_error("no directory for the test");
        path_ = path;
    }
    ~Directory() { std::filesystem::remove_all(path_); }
    Directory(const Directory &) = delete;
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

int shell(const std::string &command)
{
    return std::system(("PATH=$PATH:/sbin:/usr/sbin; " + command + " >/dev/null 2>&1").c_str());
}

// A disk image with a file system of this kind, mounted by a machine's kernel.
class ExtFsTest : public testing::TestWithParam<std::tuple<const char *, unsigned>>
{
protected:
    void SetUp() override
    {
        machine::ImageOptions options;
        options.file = directory_ / "disk.img";
        options.mebibytes = 16;
        options.kind = std::get<0>(GetParam());
        options.blockSize = std::get<1>(GetParam());
        machine::createImage(options);
    }

    void mounted(const std::function<void(machine::ExtFs &, host::Mount &)> &body)
    {
        host::Kernel kernel;
        kernel.run([&] {
            host::DiskOptions options;
            options.file = directory_ / "disk.img";
            auto disk =
                host::Disk::attach(std::filesystem::file_size(options.file) / sectorBytes, options);
            auto fs = std::make_shared<machine::ExtFs>();
            host::Mount mount(disk->device(1), fs);
            ASSERT_TRUE(mount.mounted());
            body(*fs, mount);
        });
        EXPECT_EQ(kernel.violations(), std::vector<std::string>());
    }

    // The image of the partition alone, as a backup has it.
    std::string partition()
    {
        std::string image = directory_ / "partition.img";
        EXPECT_EQ(shell("dd bs=1M skip=1 if=" + (directory_ / "disk.img") + " of=" + image), 0);
        return image;
    }

    Directory directory_;
};

TEST_P(ExtFsTest, WhatIsWrittenIsInTheImageAndE2fsckFindsItClean)
{
    machine::Manifest held;
    mounted([&](machine::ExtFs &fs, host::Mount &) {
        EXPECT_EQ(fs.blockSize(), std::get<1>(GetParam()));
        fs.makeDirectory("/d");
        fs.writeFile("/d/a", 0, std::string(100'000, 'a'));
        fs.writeFile("/d/a", 50'000, std::string(70'000, 'b'));
        fs.writeFile("/d/short", 0, "x");
        fs.writeFile("/gone", 0, std::string(30'000, 'g'));
        fs.removeFile("/gone");
        fs.truncateFile("/d/a", 90'001);
        fs.renameFile("/d/short", "/d/long");
        held = fs.manifest();
    });
    EXPECT_EQ(held.at("/d/a").size, 90'001u);
    EXPECT_EQ(held.at("/d/long").size, 1u);
    EXPECT_EQ(held.count("/gone"), 0u);
    std::string image = partition();
    EXPECT_EQ(shell("e2fsck -fn " + image), 0);
    EXPECT_EQ(machine::readImageManifest(image), held);
}

TEST_P(ExtFsTest, AFreezeWritesEverythingOutAndHoldsWriters)
{
    mounted([&](machine::ExtFs &fs, host::Mount &mount) {
        for (int i = 0; i < 50; i++)
            fs.writeFile("/file-" + std::to_string(i), 0, std::string(20'000, 'f'));
        struct super_block *sb = freeze_bdev(mount.device());
        ASSERT_NE(sb, nullptr);
        machine::Manifest held = fs.manifest();
        bool written = false;
        host::Task writer = host::spawn("writer", [&] {
            fs.writeFile("/late", 0, "late");
            written = true;
        });
        host::sleepNanoseconds(20'000'000);
        std::string image = partition();
        EXPECT_EQ(shell("e2fsck -fn " + image), 0);
        EXPECT_EQ(machine::readImageManifest(image), held);
        EXPECT_EQ(held.count("/late"), 0u);
        thaw_bdev(mount.device(), sb);
        writer.join();
        EXPECT_TRUE(written);
        EXPECT_EQ(fs.manifest().count("/late"), 1u);
    });
}

TEST_P(ExtFsTest, TheManifestAfterManyChangesIsThatOfAFreshWalk)
{
    machine::Manifest held;
    mounted([&](machine::ExtFs &fs, host::Mount &mount) {
        fs.manifest();
        auto shared = std::shared_ptr<machine::ExtFs>(&fs, [](machine::ExtFs *) {});
        machine::WriterOptions options;
        options.pauseMilliseconds = 0;
        options.bytesPerWriter = 1024 * 1024;
        {
            machine::Writers writers(shared, options);
            while (writers.operations() < 300 && writers.failure().empty())
                host::sleepNanoseconds(5'000'000);
            EXPECT_EQ(writers.failure(), "");
        }
        held = fs.manifest();
        thaw_bdev(mount.device(), freeze_bdev(mount.device()));
    });
    EXPECT_EQ(machine::readImageManifest(partition()), held);
    EXPECT_EQ(shell("e2fsck -fn " + partition()), 0);
}

TEST_P(ExtFsTest, AnOperationOnAFileThatIsNotThereSaysWhich)
{
    mounted([&](machine::ExtFs &fs, host::Mount &) {
        try {
            fs.removeFile("/nothing");
            ADD_FAILURE() << "no error";
        } catch (const std::runtime_error &e) {
            EXPECT_NE(std::string(e.what()).find("/nothing"), std::string::npos);
        }
        EXPECT_THROW(fs.writeFile("/no/such/directory", 0, "x"), std::runtime_error);
    });
}

INSTANTIATE_TEST_SUITE_P(Kinds, ExtFsTest,
                         testing::Values(std::make_tuple("ext4", 4096u),
                                         std::make_tuple("ext4", 1024u),
                                         std::make_tuple("ext3", 2048u),
                                         std::make_tuple("ext2", 1024u)));

TEST(Image, ThatCannotHoldThePartitionIsRefused)
{
    machine::ImageOptions options;
    options.file = "/nonexistent/disk.img";
    options.mebibytes = 1;
    EXPECT_THROW(machine::createImage(options), std::runtime_error);
    options.mebibytes = 16;
    EXPECT_THROW(machine::createImage(options), std::runtime_error);
}

} // namespace
