/// Seeds of randomised tests: printed with every failure, repeatable through OSKERNEL_SEED.
#ifndef OSKERNEL_TESTS_SEED_H
#define OSKERNEL_TESTS_SEED_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <random>
#include <string>

namespace oskernel_test {

/// The seed of this test: OSKERNEL_SEED when it is set, otherwise a new one. Printed and recorded.
inline unsigned test_seed() {
  const char* given = std::getenv("OSKERNEL_SEED");
  const unsigned seed =
      given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 0)) : std::random_device{}();
  ::testing::Test::RecordProperty("seed", std::to_string(seed));
  std::cout << "OSKERNEL_SEED=" << seed << "\n";
  return seed;
}

/// A number from low to high, both included.
inline int pick(std::mt19937& random, int low, int high) {
  return std::uniform_int_distribution<int>(low, high)(random);
}

}  // namespace oskernel_test

#endif
