// What the HTTP side may ask of a run. Everything here may be called by any thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "view.h"

namespace tool {

class Service {
  public:
    virtual ~Service() = default;
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    // The newest sample, which is made once a second. Never null.
    virtual std::shared_ptr<const RunSample> Newest() const = 0;
    // The last lines of the log that name the source, oldest first, without secrets. Empty for an unknown name.
    virtual std::vector<std::string> Log(const std::string &source) const = 0;
    // Closes the source and opens it again, soon and without waiting for it. False for an unknown name.
    virtual bool Restart(const std::string &source) = 0;

  protected:
    Service() = default;
};

}  // namespace tool
