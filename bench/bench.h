#pragma once

#include <sched.h>
#include <sys/types.h>
#include <time.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace bench {

/** Says that an output was wrong, so that it gets no figure. */
struct Wrong : std::runtime_error {
    using std::runtime_error::runtime_error;
};

inline void expect(bool right, const char* otherwise = "a frame did not come, or was wrong") {
    if (!right) throw Wrong(otherwise);
}

/** What one piece took, against a reference that was measured beside it; less is better. */
struct Pairing {
    std::string piece;           ///< "rotate180"
    std::string what;            ///< "720p, in cache"
    std::string reference;       ///< "in-place pass"
    std::vector<double> ours;    ///< in microseconds
    std::vector<double> theirs;  ///< the i-th was measured in the same round as the i-th of ours
    std::optional<double> aim;   ///< the ratio to stay within; none: for the reader to see
};

/** Medians; the ratio is that of a round, and `low` and `high` are its quartiles. */
struct Summary {
    double ours, theirs, ratio, low, high;
};

/** REQUIRES: both sides have samples, and equally many. */
Summary summaryOf(const Pairing& pairing);

/** How a cost grows: a median, in microseconds, for each size. */
struct Curve {
    std::string name;  ///< "a request behind others that wait"
    std::string size;  ///< what the sizes count: "requests waiting"
    std::vector<std::pair<size_t, double>> points;
};

/** One measured number, and what is expected of it. */
struct Fact {
    std::string name;
    double value;
    std::string unit;
    std::string expected;
};

/** A run: how long it takes, and all that it has found. */
struct Run {
    bool quick;
    int rounds;  ///< samples of each side
    double secondsPerSample;
    std::vector<Pairing> pairings = {};
    std::vector<Curve> curves = {};
    std::vector<Fact> facts = {};
    std::vector<std::string> absent = {};  ///< what was left out, and why: a sentence each
    std::vector<std::string> faults = {};  ///< outputs that were wrong: those get no figure

    /** Adds to what is absent, once. */
    void leaveOut(const std::string& sentence);
};

/** The tables, in Markdown, on stdout. */
void print(const Run& run);

using Clock = std::chrono::steady_clock;

inline double microsecondsOf(Clock::duration time) {
    return std::chrono::duration<double, std::micro>(time).count();
}
inline double microsecondsSince(Clock::time_point start) {
    return microsecondsOf(Clock::now() - start);
}

/** The microseconds that a process has spent on processors so far; 0: whose clock this is. */
double processorMicroseconds(pid_t process = 0, clockid_t clock = CLOCK_PROCESS_CPUTIME_ID);

/** Keeps this thread, and what it starts, on one processor for the scope of this object. */
class OnOneProcessor {
public:
    OnOneProcessor();
    ~OnOneProcessor();
    OnOneProcessor(const OnOneProcessor&) = delete;
    OnOneProcessor& operator=(const OnOneProcessor&) = delete;

private:
    cpu_set_t mBefore;
};

/** What one sample found, in microseconds: a figure for each measure of a pairing. */
using Sample = std::vector<double>;
/** The ratio to stay within, for each measure; where there is none, the reader is to see. */
using Aims = std::vector<std::optional<double>>;

/** One way to do a piece's work. */
struct Side {
    std::string name;
    std::function<Sample()> sample;  ///< throws Wrong when what it made is wrong
    Aims aims = {};                  ///< of ours against this one
};

/**
 * Work that is done so often that a sample takes this long. Before that `check` runs once; it and
 * the work throw Wrong when what they see is wrong.
 */
Side loopOf(const std::string& name, double secondsPerSample, const std::function<void()>& check,
            const std::function<void()>& work, std::optional<double> aim = std::nullopt);

/**
 * Measures the sides in rounds: one sample of each, one right after the other, beginning with
 * another one each time, after a round to warm up. Adds a pairing of ours, which is the first
 * side, with each other one for each measure, whose name is put behind `what`. When anything was
 * wrong, there is a fault instead. Gives each side's median of the first measure, or nothing.
 */
std::vector<double> compare(Run& run, const std::string& piece, const std::string& what,
                            const std::vector<Side>& sides,
                            const std::vector<std::string>& measures = {""});

/** The rotation as it was before its vectors, for even sizes whose rows have no gaps. */
void turnPlainly(uint8_t* luma, uint8_t* chroma, size_t width, size_t rows);

// The parts of a run; each adds what it found. When one throws Wrong, the rest of it is left out.

void benchRotation(Run& run);
void benchCopies(Run& run);
void benchRequest(Run& run);
void benchDelivery(Run& run);
void benchRoads(Run& run);
void benchCounts(Run& run);
void benchGrowth(Run& run);
void benchIdle(Run& run);
void benchCamera(Run& run);

// What it is as another process, which it starts itself; each returns that one's exit code.

using Arguments = std::vector<std::string>;

/** The provider of the real road, until SIGTERM: with "pictures" if so, and at this socket. */
int serveRoad(const Arguments& arguments);
/** A camera in such a provider: plays this clip, a frame for each request. */
int serveCamera(const Arguments& arguments);
/** The producer of GStreamer's road: orders come as numbers of frames, one a line; 0 ends it. */
int produceForGst(const Arguments& arguments);
/** So many frames of one kind and nothing else, for tools that count. */
int runSteady(const Arguments& arguments);

std::filesystem::path thisProgram();

/** Makes it if need be, and empties it of an earlier run. False after a sentence on stderr. */
bool prepareFolder(const std::filesystem::path& folder);
/**
 * All samples, for scripts: figures.json, one object; and pictures, if gnuplot draws them: of the
 * ratios of each piece, and of the curves. False after a sentence on stderr.
 */
bool writeFolder(Run& run, const std::string& machine, const std::filesystem::path& folder);

}  // namespace bench
