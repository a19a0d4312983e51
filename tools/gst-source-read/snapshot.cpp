#include <unistd.h>

#include "commands.h"
#include "interrupts.h"
#include "output.h"
#include "picture.h"
#include "picture_file.h"

namespace reader {

int RunSnapshot(const Options &options) {
    if (options.output == "-" && isatty(STDOUT_FILENO) != 0) {
        Complain("a picture is not for a terminal; give OUT.jpg, OUT.png or a pipe");
        return tool::kExitUsage;
    }
    tool::interrupts::Install(-1);
    PictureFile file(options.output);
    KeyFrameTaker taker(options);
    StartGStreamer();
    const KeyFrame frame = taker.Take();
    const SamplePtr picture = DecodePicture(frame);
    const SamplePtr encoded = EncodePicture(picture.get(), options.view.format, options.view.width);
    file.Finish(SampleBytes(encoded.get()).View());
    return tool::kExitOk;
}

}  // namespace reader
