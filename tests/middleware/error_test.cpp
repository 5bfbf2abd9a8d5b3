// KQError: the one sentence a remote caller reads, and what survives a copy
// or a catch by base class.
#include "middleware/error.h"

#include <gtest/gtest.h>

#include <exception>
#include <string>

namespace KQ {
namespace {

TEST(ErrorTest, WhatReadsModuleMethodAndMessage) {
  // Case: the usual shape; the message keeps its own final period.
  KQError e("KQWorldRepresentation", "getAttributesFromCategory",
            "Category Cups does not exist, cannot retrieve attributes.", "world.cpp", 42);
  EXPECT_STREQ(
      "KQWorldRepresentation.getAttributesFromCategory: Category Cups does not exist, cannot retrieve attributes.",
      e.what());

  // Case: the source position is kept but stays out of the sentence.
  EXPECT_EQ("world.cpp", e.getFile());
  EXPECT_EQ(42u, e.getLine());

  // Case: missing pieces leave no stray separators.
  EXPECT_STREQ("init: no robot", KQError("", "init", "no robot").what());
  EXPECT_STREQ("KQMotion: no robot", KQError("KQMotion", "", "no robot").what());
  EXPECT_STREQ("no robot", KQError("", "", "no robot").what());

  // Case: a null file name is an empty one, not a crash.
  EXPECT_EQ("", KQError("m", "f", "x", nullptr, 0).getFile());
}

TEST(ErrorTest, CopiesAndBaseCatchesKeepTheText) {
  // Case: a rethrown copy (as the method table does) reads the same, even
  // after the original is gone.
  std::string copied;
  try {
    KQError original("KQMemory", "getData", "Key Object/cup not found.", "", 0);
    KQError copy(original);
    throw copy;
  } catch (const KQError& e) {
    KQError again = e;
    copied = again.what();
  }
  EXPECT_EQ("KQMemory.getData: Key Object/cup not found.", copied);

  // Case: argument and unknown-method refusals are KQErrors and
  // std::exceptions with the same text.
  try {
    throw KQArgumentError("KQWorldRepresentation", "storeObject", "argument 2: expected string, got int");
  } catch (const std::exception& e) {
    EXPECT_STREQ("KQWorldRepresentation.storeObject: argument 2: expected string, got int", e.what());
  }
  try {
    throw KQUnknownMethodError("KQWorldRepresentation", "fly", "unknown method");
  } catch (const KQError& e) {
    EXPECT_EQ("fly", e.getMethodName());
  }
}

}  // namespace
}  // namespace KQ
