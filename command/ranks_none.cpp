#include <stdexcept>

#include "ranks.h"

namespace command {

std::unique_ptr<Ranks> joinRanks() {
    if (launchedProcesses().value_or("1") != "1")
        throw std::runtime_error("mpirun starts several processes, and this program was built "
                                 "without MPI");
    return makeSingleRank();
}

}  // namespace command
