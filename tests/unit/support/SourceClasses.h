// The five source classes as a table: what they share is one test, what differs is a column.
#pragma once

#include "LogCapture.h"
#include "SourceProbe.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace unit {

using Tessaro::CBaseSource;
using Tessaro::SourceProbe;

struct SourceClass {
    int type;
    std::string name;
    std::string url;  // without a peer

    CBaseSource *(*create)(void *buffer, int channel, int stream);
    void (*destroyHandle)(CBaseSource *source);
    bool (*build)(CBaseSource &source);
    void (*destroy)(CBaseSource &source);
    bool (*play)(CBaseSource &source);
    bool (*stop)(CBaseSource &source);
    bool (*video)(CBaseSource &source, GstPad *pad, const char *encode);
    bool (*audio)(CBaseSource &source, GstPad *pad, const char *encode);
    void (*padAdded)(GstElement *element, GstPad *pad, gpointer user);
    std::vector<GstElement *> (*fields)(CBaseSource &source);
    Tessaro::BranchFields (*branch)(CBaseSource &source);

    // Opens with the options that `openOptions` tells, as the class itself is called.
    bool (*open)(CBaseSource &source, const char *url);
    std::string openOptions;  // what the open line says behind the location
    bool pipelineWording;     // wording of the refusal of bad arguments

    // "factory name" of the front's elements in the order of making
    std::vector<std::string> front;
    std::string frontLinkFailure;  // empty where nothing is linked
    std::string startMessage;
    std::string reconnectMessage;
    std::string exitMessage;
    Line loopBuildFailure;  // its URL, if any, is left out
    bool loopBuildFailureHasUrl;
    std::string stateAfterPlay;
    int stateAfterBusError;  // m_nPipelineState
    bool clearsMediaInfo;

    // Pads and branches
    std::string videoCaps;  // of a pad as its demultiplexer brings it
    std::string audioCaps;
    std::string padDemuxText;  // "tsdeumx A new ", ...
    std::string padCapsFailure;
    std::string padStructureFailure;
    std::string videoLinkFailure;
    std::string videoLinkSuccess;
    int stateAfterVideoPadLinkFailure;
    std::string audioLinkFailure;
    std::string audioLinkSuccess;
    std::vector<std::string> videoSinkSets;  // up to the connecting; POINTER stands for the shared buffer
    std::vector<std::string> audioSinkSets;
    bool depays;
    bool acceptsUnparsed;  // audio encodings whose parser is "none"

    std::string Tag() const { return "[" + name + "]"; }
    // A location of this class on the loopback interface.
    std::string UrlAt(int port) const;
    std::string OpenLine(const std::string &location) const { return Tag() + " Open " + location + openOptions; }
    // What the front's build says.
    Lines BuildLines(const std::string &location) const;
    // What a build says that finds the elements made already.
    Lines SkippedBuildLines() const;
    Lines PlayLines() const;
    // What a worker says from its start to the poll, when the front stands already.
    Lines StartLines() const;
    Lines RebuildLines(const std::string &location) const;
    // A close that finds nothing to stop.
    Lines IdleCloseLines(const std::string &location) const;
    // A close that stops a session; `worker` is what the worker says once it sees the stop.
    Lines CloseLines(const std::string &location, const Lines &worker) const;
    Line NotAllElements(const std::string &location) const;
    Line BuildFailure(const std::string &location) const;
    Line Destroyed(const std::string &location) const { return Info("[CBaseSource] ~~~CBaseSource .. URL=" + location); }
    // What a branch builder says of another encoding than that of its first pad. medium: "Video", "Audio".
    Line MediaChanged(const std::string &medium, const std::string &encode) const;
    Line BadArguments(const std::string &stored) const;
    Line AlreadyLive(const std::string &location) const;
};

void PrintTo(const SourceClass &row, std::ostream *out);

const std::vector<SourceClass> &SourceClasses();
const SourceClass &ClassOf(int type);

// Name generator for parametrised suites.
struct ClassName {
    template <typename Info>
    std::string operator()(const Info &info) const {
        return info.param.name;
    }
};

// The parts of "factory name".
std::string FactoryName(const std::string &factory_and_name);
std::string InstanceName(const std::string &factory_and_name);
// The line of an element that could not be made: "factory name".
Line NotMade(const std::string &factory_and_name);

}  // namespace unit
