#pragma once

#include "figures.h"
#include "pieces.h"

/** The parts of a run; each adds what it found. */
namespace bench {

void benchRotation(Figures& figures, const Effort& effort);

}  // namespace bench
