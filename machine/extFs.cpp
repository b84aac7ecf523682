#include "extFs.h"

#include "blockIo.h"

#include <et/com_err.h>

#include <ctime>
#include <stdexcept>

namespace machine
{
namespace
{

class Locked
{
public:
    explicit Locked(struct semaphore *lock) : lock_(lock) { down(lock_); }
    ~Locked() { up(lock_); }
    Locked(const Locked &) = delete;

private:
    struct semaphore *lock_;
};

void check(const std::string &what, errcode_t error)
{
    if (error != 0)
        throw std::runtime_error(what + ": " + error_message(error));
}

} // namespace

ExtFs::ExtFs()
{
    sema_init(&lock_, 1);
}

unsigned ExtFs::blockSize() const
{
    return fs_->blocksize;
}

bool ExtFs::mount(struct block_device *device)
{
    Locked locked(&lock_);
    initialize_ext2_error_table();
    setBlockIoDevice(device);
    errcode_t error =
        ext2fs_open("host", EXT2_FLAG_RW | EXT2_FLAG_64BITS, 0, 0, blockIoManager(), &fs_);
    if (error == 0)
        error = ext2fs_read_bitmaps(fs_);
    if (error != 0 && fs_ != nullptr)
        ext2fs_close_free(&fs_);
    return error == 0;
}

void ExtFs::sync()
{
    Locked locked(&lock_);
    check("flushing the file system", ext2fs_flush(fs_));
    check("flushing the cache", io_channel_flush(fs_->io));
}

void ExtFs::unmount()
{
    Locked locked(&lock_);
    check("unmounting", ext2fs_close_free(&fs_));
}

ext2_ino_t ExtFs::find(const std::string &path)
{
    ext2_ino_t inode = 0;
    errcode_t error = ext2fs_namei(fs_, EXT2_ROOT_INO, EXT2_ROOT_INO, path.c_str(), &inode);
    if (error == EXT2_ET_FILE_NOT_FOUND)
        return 0;
    check(path, error);
    return inode;
}

ext2_ino_t ExtFs::parentOf(const std::string &path, std::string *name)
{
    std::size_t slash = path.rfind('/');
    *name = path.substr(slash + 1);
    ext2_ino_t directory = slash == 0 ? EXT2_ROOT_INO : find(path.substr(0, slash));
    if (directory == 0)
        throw std::runtime_error(path + ": no such directory");
    return directory;
}

void ExtFs::link(ext2_ino_t directory, const std::string &name, ext2_ino_t inode, int kind)
{
    errcode_t error = ext2fs_link(fs_, directory, name.c_str(), inode, kind);
    if (error == EXT2_ET_DIR_NO_SPACE) {
        check("enlarging a directory", ext2fs_expand_dir(fs_, directory));
        error = ext2fs_link(fs_, directory, name.c_str(), inode, kind);
    }
    check("linking " + name, error);
}

// A change passes the gate before it takes the lock: a held writer must not keep the freeze, which
// flushes under the lock, from finishing.
void ExtFs::change(const std::function<void()> &operation, const std::string &path)
{
    host::WriterScope scope(*gate_);
    Locked locked(&lock_);
    touched_.insert(path);
    operation();
}

void ExtFs::makeDirectory(const std::string &path)
{
    change(
        [&] {
            std::string name;
            ext2_ino_t directory = parentOf(path, &name);
            errcode_t error = ext2fs_mkdir(fs_, directory, 0, name.c_str());
            if (error == EXT2_ET_DIR_NO_SPACE) {
                check("enlarging a directory", ext2fs_expand_dir(fs_, directory));
                error = ext2fs_mkdir(fs_, directory, 0, name.c_str());
            }
            check(path, error);
        },
        path);
}

ext2_ino_t ExtFs::createFile(const std::string &path)
{
    std::string name;
    ext2_ino_t directory = parentOf(path, &name);
    ext2_ino_t number;
    check(path, ext2fs_new_inode(fs_, directory, LINUX_S_IFREG | 0644, nullptr, &number));
    ext2_inode inode = {};
    inode.i_mode = LINUX_S_IFREG | 0644;
    inode.i_links_count = 1;
    inode.i_atime = inode.i_ctime = inode.i_mtime = static_cast<__u32>(std::time(nullptr));
    if (ext2fs_has_feature_extents(fs_->super)) {
        ext2_extent_handle_t handle;
        inode.i_flags |= EXT4_EXTENTS_FL;
        check(path, ext2fs_extent_open2(fs_, number, &inode, &handle));
        ext2fs_extent_free(handle);
    }
    check(path, ext2fs_write_new_inode(fs_, number, &inode));
    ext2fs_inode_alloc_stats2(fs_, number, +1, 0);
    link(directory, name, number, EXT2_FT_REG_FILE);
    return number;
}

void ExtFs::writeFile(const std::string &path, std::uint64_t offset, const std::string &data)
{
    change(
        [&] {
            ext2_ino_t number = find(path);
            if (number == 0)
                number = createFile(path);
            ext2_file_t file;
            check(path, ext2fs_file_open(fs_, number, EXT2_FILE_WRITE, &file));
            unsigned int written = 0;
            errcode_t error = ext2fs_file_llseek(file, offset, EXT2_SEEK_SET, nullptr);
            if (error == 0)
                error = ext2fs_file_write(file, data.data(), static_cast<unsigned>(data.size()),
                                          &written);
            errcode_t closed = ext2fs_file_close(file);
            check(path, error != 0 ? error : closed);
        },
        path);
}

void ExtFs::truncateFile(const std::string &path, std::uint64_t size)
{
    change(
        [&] {
            ext2_ino_t number = find(path);
            if (number == 0)
                throw std::runtime_error(path + ": no such file");
            ext2_file_t file;
            check(path, ext2fs_file_open(fs_, number, EXT2_FILE_WRITE, &file));
            errcode_t error = ext2fs_file_set_size2(file, static_cast<ext2_off64_t>(size));
            errcode_t closed = ext2fs_file_close(file);
            check(path, error != 0 ? error : closed);
        },
        path);
}

void ExtFs::removeFile(const std::string &path)
{
    change(
        [&] {
            std::string name;
            ext2_ino_t directory = parentOf(path, &name);
            ext2_ino_t number = find(path);
            if (number == 0)
                throw std::runtime_error(path + ": no such file");
            ext2_inode inode;
            check(path, ext2fs_read_inode(fs_, number, &inode));
            check(path, ext2fs_unlink(fs_, directory, name.c_str(), number, 0));
            if (inode.i_links_count > 1) {
                inode.i_links_count--;
                check(path, ext2fs_write_inode(fs_, number, &inode));
                return;
            }
            if (ext2fs_inode_has_valid_blocks2(fs_, &inode))
                check(path, ext2fs_punch(fs_, number, &inode, nullptr, 0, ~0ULL));
            inode.i_links_count = 0;
            inode.i_dtime = static_cast<__u32>(std::time(nullptr));
            check(path, ext2fs_write_inode(fs_, number, &inode));
            ext2fs_inode_alloc_stats2(fs_, number, -1, 0);
        },
        path);
}

void ExtFs::renameFile(const std::string &from, const std::string &to)
{
    change(
        [&] {
            std::string fromName, toName;
            ext2_ino_t fromDirectory = parentOf(from, &fromName);
            ext2_ino_t toDirectory = parentOf(to, &toName);
            ext2_ino_t number = find(from);
            if (number == 0 || find(to) != 0)
                throw std::runtime_error(from + ": cannot be renamed to " + to);
            link(toDirectory, toName, number, EXT2_FT_REG_FILE);
            check(from, ext2fs_unlink(fs_, fromDirectory, fromName.c_str(), number, 0));
            touched_.insert(to);
        },
        from);
}

std::uint64_t ExtFs::freeBytes()
{
    Locked locked(&lock_);
    return ext2fs_free_blocks_count(fs_->super) * fs_->blocksize;
}

std::uint64_t ExtFs::totalBytes()
{
    Locked locked(&lock_);
    return ext2fs_blocks_count(fs_->super) * fs_->blocksize;
}

Manifest ExtFs::manifest()
{
    Locked locked(&lock_);
    if (!manifestKnown_) {
        manifest_ = readManifest(fs_);
        manifestKnown_ = true;
    } else {
        for (const std::string &path : touched_) {
            ext2_ino_t number = find(path);
            if (number == 0)
                manifest_.erase(path);
            else
                manifest_[path] = readEntry(fs_, number);
        }
    }
    touched_.clear();
    return manifest_;
}

void ExtFs::writeBack(std::size_t bytes)
{
    Locked locked(&lock_);
    writeBackSome(fs_->io, bytes);
}

} // namespace machine
