// SPDX-License-Identifier: MIT
// The route query's inner guard: no address of a known family is too long for the request, so that the function that
// builds it is called itself, from a copy of the source in this program.
#include "vxutils/route.cpp"

#include "support/resources.h"
#include "support/syslog_capture.h"
#include "vxutils/internal/log.cpp"
#include "vxutils/internal/visible.cpp"

namespace {

using vxtest::LogLine;
using Lines = std::vector<LogLine>;

TEST(RouteGuards, AnAddressThatDoesNotFitTheRequestIsRefused) {
    vxtest::SyslogCapture log;
    const auto query = std::make_unique<RouteQuery>();
    // 28 bytes of headers and 4 of the attribute leave 1020 of the request's 1052.
    for (const size_t length : {1021U, 1024U, 65536U}) {
        query->addressLength = length;
        EXPECT_EQ(buildRequest(*query), -1);
        EXPECT_EQ(log.take(), (Lines{{LOG_DEBUG, "rtq: maxlen exceeded"}})) << length;
        EXPECT_EQ(query->sequence, 0U) << "nothing was built";
    }
    for (const size_t length : {sizeof(in_addr), sizeof(in6_addr)}) {
        query->addressLength = length;
        EXPECT_EQ(buildRequest(*query), 0);
        EXPECT_EQ(query->requestLength, 32 + length);
        EXPECT_TRUE(log.take().empty());
    }
}

}  // namespace
