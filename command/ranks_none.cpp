#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "ranks.h"

namespace command {

std::unique_ptr<Ranks> joinRanks() {
    auto ranks = makeSingleRank();
    for (char const* const name : {"OMPI_COMM_WORLD_SIZE", "PMI_SIZE"})
        // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment
        if (char const* const size = std::getenv(name); size && std::string_view(size) != "1")
            throw std::runtime_error("mpirun starts several processes, and this program was built "
                                     "without MPI");
    return ranks;
}

}  // namespace command
