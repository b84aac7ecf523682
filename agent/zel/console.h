/* What a command says: lines for people, or one JSON object a line for programs. */
#pragma once

#include "error.h"

#include <nlohmann/json_fwd.hpp>
#include <ostream>
#include <string>

namespace zel
{

using Json = nlohmann::ordered_json;

class Console
{
public:
    Console(std::ostream &out, std::ostream &err) : out_(&out), err_(&err) {}

    bool json = false;
    bool quiet = false;

    // Standard output is taken by something else from now on; lines go to standard error.
    void leaveOutput() { out_ = err_; }

    // What was asked for. With --json `object` is printed instead of `text`.
    void result(const std::string &text, const Json &object);
    // What is good to know; nothing with --quiet.
    void info(const std::string &text, const Json &object);
    void warning(const std::string &text);
    void error(const std::string &text, ExitCode code);

    // Whether a progress bar would be seen and not disturb.
    bool showsProgress() const;
    // Draws the bar over the previous one; an empty text removes it.
    void progressBar(const std::string &text);
    // One line about how far things are, for who asked by signal.
    void progressLine(const std::string &text, const Json &object);

private:
    static void print(std::ostream &stream, const std::string &text);
    std::ostream *out_;
    std::ostream *err_;
    size_t barWidth_ = 0;
};

// "1.5 MiB"
std::string sizeText(uint64_t bytes);
// "1 block", "2 blocks"
std::string countText(uint64_t count, const std::string &unit);

} // namespace zel
