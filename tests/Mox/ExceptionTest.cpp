#include <Mox/Exception.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

namespace {

TEST(ErrnoException, KeepsErrnoAndNamesTheStep) {
  const Mox::ErrnoException e(EPERM, "setsockopt(IP_HDRINCL)");
  EXPECT_EQ(e.errorNumber(), EPERM);
  EXPECT_STREQ(e.what(), "setsockopt(IP_HDRINCL)");
  EXPECT_EQ(e.description(), std::string("setsockopt(IP_HDRINCL): ") + std::strerror(EPERM));
  EXPECT_EQ(Mox::ErrnoException(ENOENT, "").description(), std::strerror(ENOENT));
  EXPECT_THROW(throw Mox::ErrnoException(EBADF, "bind"), Mox::Exception);
}

}  // namespace
