// GoogleTest's main for a system on which ACE's own objects are made by the program.
#include <ace/Init_ACE.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

int main(int argc, char** argv) {
  // Shows how far a program came that dies.
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  testing::InitGoogleMock(&argc, argv);
  ACE::init();
  const int status = RUN_ALL_TESTS();
  ACE::fini();
  return status;
}
