#pragma once

#include <functional>

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

/** The one fault of this process. Before its threads. */
void choose(const Fault& fault);
/** From now on calls count. */
void arm();
/** The fault is over. */
void heal();
/** Whether there was such a call. */
bool wasReached();

/** Runs this on the provider's side, and so every thread that it makes. Ends the process with 1
 * when an exception comes out. */
void asProvider(const std::function<void()>& what);

/** Counts a call of the provider's side. The error when it is to fail, else 0. */
int errorOf(const char* call);

}  // namespace faults
