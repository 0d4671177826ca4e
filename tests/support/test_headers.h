// What most tests include, compiled once for all of them.
#ifndef TEST_HEADERS_H
#define TEST_HEADERS_H

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#endif  // TEST_HEADERS_H
