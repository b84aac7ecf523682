/* That zel reads what zelsend writes. */
#include "agent/streamWriter.h"
#include "support/zelRunner.h"

#include <sys/mman.h>

using namespace test;
using zel::Content;
using zelsend::StreamWriter;

namespace
{

class ZelSenderStream : public ZelTest
{
protected:
    ZelSenderStream() : image(32, 1024, 1), descriptor(memfd_create("stream", 0)) {}
    ~ZelSenderStream() override { close(descriptor); }

    void begin(StreamWriter &writer)
    {
        zel::HeaderRecord header = {};
        header.kind = zel::StreamKind::Full;
        header.blockSize = 1024;
        header.numBlocks = header.sentBlocks = 32;
        header.id = streamId(1);
        setText(header.device, "/dev/sda1");
        ASSERT_TRUE(writer.begin(&header));
        ASSERT_TRUE(writer.extent(20, 12, Content::Data, image.blocks(20, 12).data()));
        ASSERT_TRUE(writer.extent(0, 20, Content::Zero, nullptr));
    }
    Bytes stream() const { return readFile("/proc/self/fd/" + std::to_string(descriptor)); }

    Image image;
    int descriptor;
};

} // namespace

TEST_F(ZelSenderStream, isReceivedAndRestored)
{
    StreamWriter writer(descriptor);
    begin(writer);
    ASSERT_TRUE(writer.end());
    Answer answer = receive(stream(), "base");
    EXPECT_EQ(answer.code, 0) << answer.err;
    image.clear(0, 20);
    EXPECT_TRUE(imageOf("base") == image.bytes());
}

TEST_F(ZelSenderStream, isRefusedWhenTheSenderGaveUp)
{
    StreamWriter writer(descriptor);
    begin(writer);
    writer.abort(zelsend::failure(zelsend::ExitCode::FellShort, "the cache is full"));
    Answer answer = receive(stream(), "base");
    EXPECT_EQ(answer.code, 3);
    EXPECT_EQ(answer.err, "zel: the sender gave up: the cache is full\n");
    EXPECT_TRUE(names().empty());
}
