/* Runs commands of zel on a repository in a directory of its own. */
#pragma once

#include "cli.h"
#include "support/streamBuilder.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <unistd.h>

namespace test
{

inline Bytes readFile(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    auto view = std::as_bytes(std::span(text));
    return Bytes(view.begin(), view.end());
}

inline void writeFile(const std::filesystem::path &path, const Bytes &bytes)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char *>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

// What a command answered.
struct Answer {
    int code = -1;
    std::string out;
    std::string err;
};

class ZelTest : public ::testing::Test
{
protected:
    ZelTest()
    {
        // In memory where there is such a place: some tests make thousands of files durable.
        std::string name = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        name += "/zel-test-XXXXXX";
        if (mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("no temporary directory");
        directory = name;
        repository = directory / "repository";
    }
    ~ZelTest() override { std::filesystem::remove_all(directory); }

    // A command with `input` on standard input.
    static Answer zel(const std::vector<std::string> &arguments, const Bytes &input = {})
    {
        zel::MemorySource source(input);
        std::ostringstream out;
        std::ostringstream err;
        Answer answer;
        answer.code = zel::runCommand(arguments, source, out, err);
        answer.out = out.str();
        answer.err = err.str();
        return answer;
    }
    Answer receive(const Bytes &stream, const std::string &name = {}) const
    {
        std::vector<std::string> arguments = {"receive", repository.string()};
        if (!name.empty())
            arguments.push_back("--name=" + name);
        return zel(arguments, stream);
    }
    Answer restore(const std::string &point, const std::filesystem::path &file) const
    {
        return zel({"restore", repository.string(), point, file.string()});
    }
    // The image of a point; a test that asks for it expects that it can be had.
    Bytes imageOf(const std::string &point) const
    {
        std::filesystem::path file = directory / ("image of " + point);
        Answer answer = restore(point, file);
        EXPECT_TRUE(answer.code == 0 || answer.code == 3) << answer.err;
        Bytes bytes = readFile(file);
        std::filesystem::remove(file);
        return bytes;
    }
    // Every name in the repository, its own files excepted, hidden ones included.
    std::vector<std::string> names() const
    {
        std::vector<std::string> found;
        if (!std::filesystem::exists(repository))
            return found;
        for (const auto &entry : std::filesystem::directory_iterator(repository)) {
            if (entry.path().filename() != ".zel-repository")
                found.push_back(entry.path().filename());
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    std::filesystem::path directory;
    std::filesystem::path repository;
};

// One line, without the newline inside it.
inline bool isOneLine(const std::string &text)
{
    return !text.empty() && text.find('\n') == text.size() - 1;
}

} // namespace test
