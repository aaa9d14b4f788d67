#include <zel_exchange/vdb.h>

#include "commands.h"
#include "session.h"

namespace command {

void info(InfoOptions const& options) {
    std::string text;
    for (zel::VdbGrid const& grid : zel::listVdb(options.file)) {
        text += printable(grid.name) + ": " + printable(grid.type);
        if (grid.isHalf) text += " as half";
        if (!grid.isReadable) text += ", not readable";
        text += '\n';
        for (auto const& [key, value] : grid.metadata)
            text += "  " + printable(key) + ": " + printable(value) + '\n';
    }
    print(text);
}

}  // namespace command
