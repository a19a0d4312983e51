// A process that can open next to nothing more.
#pragma once

#include <sys/resource.h>

#include <filesystem>
#include <iterator>

namespace unit {

// Lets about `room` descriptors be opened for its lifetime, none at all for 0. What is open stays open.
class FewDescriptors {
  public:
    explicit FewDescriptors(rlim_t room) {
        getrlimit(RLIMIT_NOFILE, &m_saved);
        // The limit is on numbers, of which higher ones may be taken.
        // With 0, poll() would fail for any descriptor.
        const rlimit limit{room > 0 ? Open() + room : 1, m_saved.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &m_saved); }
    FewDescriptors(const FewDescriptors &) = delete;
    FewDescriptors &operator=(const FewDescriptors &) = delete;

  private:
    static rlim_t Open() {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return static_cast<rlim_t>(std::distance(begin(all), end(all)));
    }

    rlimit m_saved{};
};

}  // namespace unit
