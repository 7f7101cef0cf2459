#pragma once

#include "bench/load/BlockChecker.h"
#include "bench/load/Program.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kelto::halvek::bench {

/** An input pipe, a program that passes events on, and an output pipe with its checker. */
class Channel {
public:
    /**
     * Makes the pipes and starts the program; returns when it has the input pipe open.
     *
     * @param base its input pipe is base + ".pipe", and the folder of its output pipe is base
     */
    Channel(const std::string& base, const std::vector<std::string>& command);
    ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    /** Passes so many events on, as fast as the program takes them. */
    void Pump(uint64_t events);

    /** Passes one event on; returns the nanoseconds from before the write to behind the last read. */
    int64_t PassOne();

    /** Ends the program and makes sure that nothing more came out. */
    void Finish();

    int64_t ProcessorTime() const { return program.ProcessorTime(); }

    /** How many blocks the output pipe holds in any case. */
    uint64_t OutputCapacity() const;

    /** Writes whole events, PIPE_BUF bytes at the most. False if the input pipe stayed full for a while. */
    bool TryWrite(const std::string& events) const;

private:
    void OpenInput();
    void Drain();
    void ExpectProgress(int64_t since);
    void TakeWhatIsThere();

    const std::string inputPath;
    const std::string outputPath;
    const int output;
    Program program;
    int input = -1;
    BlockChecker checker;
};

}  // namespace kelto::halvek::bench
