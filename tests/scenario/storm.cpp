#include "storm.h"

#include <random>

namespace scenario
{

Storm::Storm(Environment &env, unsigned writers, unsigned devices) : env_(env)
{
    for (unsigned i = 0; i < writers; i++)
        tasks_.push_back(env.start([this, i, devices] {
            try {
                blow(i % devices, i);
            } catch (...) {
                failed_ = true;
                throw;
            }
        }));
}

void Storm::awaitWrites(unsigned more)
{
    unsigned before = writes_;
    while (writes_ - before < more) {
        expect(!failed_, "the writers to go on");
        env_.pause(100);
    }
}

void Storm::awaitStandstill(unsigned microseconds)
{
    for (unsigned before = writes_ + 1; before != writes_;) {
        before = writes_;
        env_.pause(microseconds);
    }
}

void Storm::end()
{
    stop_ = true;
    for (auto &task : tasks_)
        task->join();
}

void Storm::blow(unsigned device, unsigned seed)
{
    std::mt19937 random(seed);
    while (!stop_) {
        auto first = static_cast<std::uint32_t>(random() % (env_.places(device) - 8));
        env_.write(device, first, static_cast<std::uint32_t>(1 + random() % 8));
        if (random() % 4 == 0)
            env_.sync(device);
        writes_++;
        env_.pause(200);
    }
}

} // namespace scenario
