// What nearly every test file includes, compiled once for each program. A file includes what
// it uses all the same: clang's build has none.
#ifndef TESTS_PCH_TESTS_H
#define TESTS_PCH_TESTS_H

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#endif
