// record-feeder NAME MATERIAL: a host that writes a material into the buffer NAME until it is killed.
#include <unistd.h>

#include <cstdio>

#include "Feeder.h"

int main(int argc, char **argv) {
    if (argc != 3) {
        return 2;
    }
    peers::FeederOptions options;
    options.name = argv[1];
    const peers::Feeder feeder(peers::GetMaterial(argv[2]), options);
    for (;;) {
        pause();
    }
}
