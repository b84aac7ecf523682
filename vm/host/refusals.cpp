#include "refusals.h"

#include <cerrno>

#include <fcntl.h>

#include "objectFile.h"
#include "worker.h"
#include "zelmod.h"

namespace vm
{
namespace
{

using scenario::expect;
using scenario::expectEqual;

// Loads this image, which must be refused with this message.
void expectRefused(Environment &env, const std::string &image, const std::string &message)
{
    const std::string path = "/refused.ko";
    Worker worker(env.guest());
    int file = worker.open(path, O_CREAT | O_TRUNC | O_WRONLY);
    expect(file >= 0, "a file for the image");
    expectEqual(worker.writeAll(file, {image.begin(), image.end()}), 0, "the result of writing it");
    worker.close(file);
    std::size_t before = env.kernelLog().size();
    expectEqual(worker.loadModule(path, static_cast<std::uint32_t>(image.size())), -ENOEXEC,
                "the result of loading it");
    std::string log = env.kernelLog().substr(before);
    expect(log.find(message) != std::string::npos, "to be told \"" + message + "\", not: " + log);
}

void expectLoads(Environment &env)
{
    expectEqual(env.load(), 0, "the result of loading the right module");
    expectEqual(env.unload(), 0, "the result of unloading it");
}

// The kernel looks at the configuration that the module says it was built for. It may pass over the
// version, which comes first.
void refusesAnotherVersionMagic(Environment &env)
{
    std::string image = env.module();
    std::size_t at = image.find("vermagic=");
    at = at == std::string::npos ? at : image.find(' ', at);
    expect(at != std::string::npos, "a version magic in the module");
    image[at + 1] ^= 'S' ^ 's';
    expectRefused(env, image, "version magic");
    expectLoads(env);
}

// Size or alignment of a semaphore are not what the sources were compiled with.
void refusesOtherRecords(Environment &env)
{
    ObjectFile file(env.module());
    std::size_t address = file.has64Bits() ? 8 : 4;
    std::size_t recordBytes = address + 8; // a name's address, size and alignment
    std::size_t second = file.data("embeddedSeen") + recordBytes;
    for (std::size_t field : {address, address + 4}) {
        std::string image = env.module();
        image.at(second + field)++;
        expectRefused(env, image, "zelmod: not loaded: its sources take rw_semaphore for ");
    }
    expectLoads(env);
}

// In the same file the commands of 32-bit programs are taken.
void refusesWidePrograms(Environment &env)
{
    expectEqual(env.load(), 0, "the result of loading the module");
    Worker worker(env.guest());
    int file = worker.open("/dev/zelmod", O_RDWR);
    expect(file >= 0, "the control device to open");
    std::size_t before = env.kernelLog().size();
    for (std::uint32_t command : {ZEL_GET_VERSION_MAJOR, ZEL_SYNC, ZEL_NO_START_AUTO_MAP})
        expectEqual(worker.wideControl(file, command), -EOPNOTSUPP, "the answer to 64 bits");
    std::string log = env.kernelLog().substr(before);
    expect(log.find("it is a 64-bit program") != std::string::npos, "to be told so, not: " + log);
    expectEqual(worker.control(file, ZEL_RESERVED), static_cast<int>(ZEL_RESULT_CHANGED),
                "the answer to 32 bits");
    expectEqual(worker.close(file), 0, "the result of closing");
    expectEqual(env.unload(), 0, "the result of unloading");
}

} // namespace

std::vector<GuestScenario> refusalScenarios()
{
    GuestScenario wide = {"RefusesCommandsOf64BitPrograms", {}, refusesWidePrograms};
    wide.needs64Bits = true;
    return {
        {"RefusesAModuleOfAnotherVersionMagic", {}, refusesAnotherVersionMagic},
        {"RefusesAModuleWithOtherRecords", {}, refusesOtherRecords},
        wide,
    };
}

} // namespace vm
