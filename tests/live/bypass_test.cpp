// bypass_test.cpp - what forwarded packets would meet in the kernel, in a namespace of the test's own.
#include "kernel_bypass.h"

#include <cstdlib>

#include <gtest/gtest.h>
#include <unistd.h>

#include "packet_card.h"

using namespace harness;

namespace
{
using strings = std::vector<std::string>;

struct bypass : testing::Test {
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs the superuser";
    }
};

bool has(const char *program) { return std::system((std::string(program) + " -V >/dev/null 2>&1").c_str()) == 0; }

TEST_F(bypass, queues_and_filters_of_ports_are_named_and_others_are_not)
{
    const net_space space;
    command("ip link add near type veth peer name far && ip link set near up && ip link set far up");
    command("sysctl -qw net.ipv4.conf.all.rp_filter=0 net.ipv4.conf.near.rp_filter=0 net.ipv4.conf.far.rp_filter=1");
    const std::map<int, std::string> near = {{static_cast<int>(index_of("near")), "near"}},
                                     far = {{static_cast<int>(index_of("far")), "far"}};
    EXPECT_EQ(kernel_bypass_find(near), strings{});
    EXPECT_EQ(kernel_bypass_find(far), strings{"rp_filter of far"});
    if (!has("tc"))
        GTEST_SKIP() << "tc is missing (package iproute2)";
    command("tc qdisc add dev near clsact");
    EXPECT_EQ(kernel_bypass_find(near), strings{"traffic control: clsact on near"});
    EXPECT_EQ(kernel_bypass_find({}), strings{});
    command("sysctl -qw net.ipv4.conf.all.rp_filter=2");
    EXPECT_EQ(kernel_bypass_find(near), (strings{"traffic control: clsact on near", "rp_filter of near"}));
}

TEST_F(bypass, chains_that_forwarded_packets_meet_are_named)
{
    const net_space space;
    if (!has("nft"))
        GTEST_SKIP() << "nft is missing (package nftables)";
    if (std::system("nft add table ip t 2>/dev/null") != 0)
        GTEST_SKIP() << "the kernel has no nftables";
    command("nft add chain ip t own '{ type filter hook input priority 0; }'");
    command("nft add chain ip t plain");
    EXPECT_EQ(kernel_bypass_find({}), strings{});
    command("nft add chain ip t through '{ type filter hook forward priority 0; }'");
    EXPECT_EQ(kernel_bypass_find({}), strings{"netfilter: chain through of table t"});
}
} // namespace
