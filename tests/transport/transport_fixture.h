// Shared fixture of the transport tests: virtual units on /dev/tavk05N and
// helpers to read back what a unit received.
#ifndef TAVK05_TESTS_TRANSPORT_FIXTURE_H
#define TAVK05_TESTS_TRANSPORT_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tavk05/virtual.h"
#include "virtual_unit_test.h"
#include "tavk05/vxdinter.h"

class TransportTest : public VirtualUnitTest {
protected:
    // Request numbers the unit received, in order.
    static std::vector<unsigned long> RequestNumbers(int nIndex = 0)
    {
        std::vector<unsigned long> vec;
        for (const tavk05virt::Request& req : tavk05virt::RequestLog(nIndex)) vec.push_back(req.nRequest);
        return vec;
    }

    // Opens unit nIndex through the transport and forgets the requests the
    // open itself made.
    static void OpenAndClearLog(CVxdInterface& vxd, unsigned short nIndex = 0)
    {
        ASSERT_EQ(VXD_OK, vxd.OpenUSB(nIndex));
        tavk05virt::ClearLog(nIndex);
    }
};

#endif
