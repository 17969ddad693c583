#include <Mox/Exception.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

namespace {

TEST(Exception, WhatIsTheExactTextAndTheFamilyCatchesIt) {
  try {
    throw Mox::RangeException("Invalid IntfId <Ethernet1/>");
  } catch (const Mox::Exception& e) {
    EXPECT_STREQ(e.what(), "Invalid IntfId <Ethernet1/>");
  }
  EXPECT_THROW(throw Mox::MemoryLimitExceededException("table full"), std::exception);
}

TEST(ErrnoException, KeepsErrnoAndNamesTheStep) {
  const Mox::ErrnoException e(EPERM, "setsockopt(IP_HDRINCL)");
  EXPECT_EQ(e.errorNumber(), EPERM);
  EXPECT_STREQ(e.what(), "setsockopt(IP_HDRINCL)");
  EXPECT_EQ(e.description(), std::string("setsockopt(IP_HDRINCL): ") + std::strerror(EPERM));
  EXPECT_EQ(Mox::ErrnoException(ENOENT, "").description(), std::strerror(ENOENT));
  EXPECT_THROW(throw Mox::ErrnoException(EBADF, "bind"), Mox::Exception);
}

}  // namespace
