#pragma once

#include "figures.h"
#include "pieces.h"

/** The parts of a run; each adds what it found. */
namespace bench {

void benchRotation(Figures& figures, const Effort& effort);
void benchCopies(Figures& figures, const Effort& effort);
void benchRequest(Figures& figures, const Effort& effort);
void benchDelivery(Figures& figures, const Effort& effort);
void benchRoads(Figures& figures, const Effort& effort);
void benchCounts(Figures& figures, const Effort& effort);
void benchGrowth(Figures& figures, const Effort& effort);
void benchIdle(Figures& figures, const Effort& effort);

}  // namespace bench
