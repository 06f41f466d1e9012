#pragma once

#include <atomic>
#include <functional>
#include <string>

/**
 * Makes one call of a function fail that the provider's side of this process calls. A program that
 * is linked with this brings its own functions of those names, which win over the libraries'.
 */
namespace faults {

/** What the n-th call returns, counted from 1, and every later one if it stays: this error. */
struct Fault {
    const char* call;
    int error;
    bool stays;
    int n;
};

/** What a fault may do to a client, at most. */
enum class Effect {
    NONE,     ///< nothing
    REFUSAL,  ///< a call is refused, or a frame not filled
    LOSS,     ///< its channel is given up
    SILENCE,  ///< a call is not answered in time
    END       ///< the process ends at once, by abort()
};

/** The one fault of this process. Set before its threads are there. */
inline Fault chosen = {};
/** While it is, calls count, and the fault may come. */
inline std::atomic<bool> isArmed{false};
/** How many calls of that function there were. */
inline std::atomic<int> calls{0};

/** Runs this on the provider's side, and so every thread that it makes. Fails when an exception
 * comes out. */
void asProvider(const std::function<void()>& what);

/** Counts a call of the provider's side. The error when it is to fail, in errno too, else 0. */
int errorOf(const char* call);

/** Ends the process with 1 and a line. */
[[noreturn]] void fail(const std::string& what);

/** A client's life, first with the fault and then without. Fails when something does not hold. */
void runSession(Effect effect);

}  // namespace faults
