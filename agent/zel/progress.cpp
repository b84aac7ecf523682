#include "progress.h"

#include "interrupt.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace zel
{

namespace
{

constexpr auto drawInterval = std::chrono::milliseconds(100);
constexpr size_t barWidth = 24;

} // namespace

Progress::Progress(Console &console, std::string label, uint64_t total)
    : console_(console), label_(std::move(label)), total_(total), shown_(console.showsProgress()),
      start_(Clock::now()), drawn_(start_)
{
}

Progress::~Progress()
{
    if (shown_)
        console_.progressBar("");
}

void Progress::update(uint64_t done)
{
    checkInterrupted();
    if (takeProgressRequest())
        console_.progressLine(
            line(done),
            {{"event", "progress"}, {"task", label_}, {"bytesDone", done}, {"bytesTotal", total_}});
    if (!shown_)
        return;
    Clock::time_point now = Clock::now();
    if (now - drawn_ < drawInterval)
        return;
    drawn_ = now;
    console_.progressBar(bar(done, now - start_));
}

std::string Progress::line(uint64_t done) const
{
    unsigned percent = total_ == 0 ? 100 : static_cast<unsigned>(done * 100.0 / total_);
    return label_ + ": " + std::to_string(percent) + " %, " + sizeText(done) + " of " +
           sizeText(total_);
}

std::string Progress::bar(uint64_t done, Clock::duration elapsed) const
{
    double share = total_ == 0 ? 1 : std::min(1.0, static_cast<double>(done) / total_);
    auto filled = static_cast<size_t>(share * barWidth);
    std::string bar = std::string(filled, '=') + std::string(barWidth - filled, ' ');
    double seconds = std::chrono::duration<double>(elapsed).count();
    char tail[64];
    std::snprintf(tail, sizeof tail, "] %3d %%  %s/s", static_cast<int>(share * 100),
                  sizeText(static_cast<uint64_t>(done / seconds)).c_str());
    std::string left;
    if (share > 0) {
        auto rest = static_cast<unsigned long>(seconds / share - seconds);
        char text[32];
        std::snprintf(text, sizeof text, "  %lu:%02lu left", rest / 60, rest % 60);
        left = text;
    }
    return label_ + " [" + bar + tail + left;
}

} // namespace zel
