// The name tests in the lab, where the hosts file is the resolver and its calls are
// counted.
#include "liblocal/hosts/is_mynam.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "liblocal/hosts/client_list.h"
#include "liblocal/hosts/cluster.h"
#include "liblocal/hosts/dns_cache.h"
#include "liblocal/hosts/get_myad.h"
#include "liblocal/hosts/localhost.h"
#include "liblocal/hosts/svc_time.h"
#include "liblocal/messages/errinfo.h"
#include "liblocal/threads/vx_error.h"
#include "tests/failing_malloc.h"
#include "tests/hostlist_check.h"
#include "tests/lab.h"
#include "tests/stand_ins.h"
#include "tests/threads.h"

using namespace stand_ins;

namespace {

const std::string kHosts =
    "127.0.0.1 localhost manager\n"
    "192.0.2.1 lab-host.example.net lab-host\n"
    "198.51.100.1 web.example.net web www\n"
    "198.51.100.2 web.example.net web\n"
    "198.51.100.3 mail.example.net mail\n";

void pass(int64_t seconds) {
  now += seconds;
  svc_time_reset();
}

std::string owned(char* text) {
  std::string copy = text == nullptr ? "(null)" : text;
  free(text);
  return copy;
}

class NameTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    if (IsSkipped()) return;
    hosts_before_ = lab::read_file("/etc/hosts");
    lab::write_file("/etc/hosts", kHosts);
    free_dns_hostlist_cache();
    free_client_hostlist_cache();
    now = 1'000'000'000;
    svc_time_reset();
    testing::internal::CaptureStderr();
  }
  void TearDown() override {
    if (IsSkipped()) return;
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(hostlist_fault(dns_hostlist_cache), "");
    lab::write_file("/etc/hosts", hosts_before_);
    resolver_is_down = false;
    now = 0;
    svc_time_reset();
    clu_set_localvirthost_hook(nullptr);
  }

  // How many names `work` asks the resolver for.
  template <typename Work>
  static int asked_by(Work work) {
    int before = names_asked;
    work();
    EXPECT_EQ(hostlist_fault(dns_hostlist_cache), "");
    return names_asked - before;
  }

 private:
  std::string hosts_before_;
};

TEST_F(NameTest, OfThisHost) {
  auto ask_for_the_obvious = [] {
    EXPECT_TRUE(is_myname(nullptr) && is_myname("LocalHost"));
    EXPECT_TRUE(samehost("Web", "wEB") && samehost(nullptr, nullptr));
  };
  EXPECT_EQ(asked_by(ask_for_the_obvious), 0);
  for (const char* name :
       {"lab-host", "LAB-HOST.example.net", " lab-host", "192.0.2.1", "manager", "127.0.0.1", ""}) {
    EXPECT_EQ(is_myname(name), 1) << name;
  }
  for (const char* name : {"web", "198.51.100.3", "nobody", "  "}) {
    EXPECT_EQ(is_myname(name), 0) << name;
  }
  EXPECT_EQ(owned(get_primaryhostname(nullptr)), "lab-host.example.net");
  EXPECT_EQ(owned(get_primaryhostname("www")), "web.example.net");
  EXPECT_EQ(samehost("mail", "198.51.100.3"), 1);
  EXPECT_EQ(samehost("web", "198.51.100.2"), 1);
  EXPECT_EQ(samehost("web", "mail"), 0);
  EXPECT_EQ(samehost(nullptr, "lab-host"), 1);
  EXPECT_EQ(samehost("nobody", "NOBODY2"), 0) << "two unknown names are no host";
}

TEST_F(NameTest, AskTheResolverOncePerTime) {
  EXPECT_EQ(is_myname("lab-host"), 1);
  auto all = [] {
    EXPECT_EQ(is_myname("www"), 0);
    EXPECT_EQ(is_validhostname("nobody"), 0);
    EXPECT_EQ(is_myname("nobody"), 0);
    EXPECT_EQ(is_myname("lab-host"), 1);
  };
  EXPECT_EQ(asked_by(all), 2);
  EXPECT_EQ(asked_by(all), 0);
  now += 5000;
  EXPECT_EQ(asked_by(all), 0) << "the service time stands until it is reset";
  now -= 5000;
  pass(300);
  EXPECT_EQ(asked_by(all), 0);
  pass(1);
  EXPECT_EQ(asked_by(all), 1) << "the unknown name";
  pass(1499);
  EXPECT_EQ(asked_by(all), 1) << "again";
  pass(1);
  EXPECT_EQ(asked_by(all), 2) << "this host, and the known one";
}

TEST_F(NameTest, AResolverThatIsDown) {
  EXPECT_EQ(is_myname("lab-host"), 1);
  EXPECT_EQ(is_validhostname("web"), 1);
  resolver_is_down = true;
  pass(1801);
  auto all = [] {
    EXPECT_EQ(is_myname("lab-host"), 1) << "who this host is stays known";
    EXPECT_EQ(is_validhostname("web"), 1);
    EXPECT_EQ(is_validhostname("mail"), 0);
  };
  EXPECT_EQ(asked_by(all), 3);
  EXPECT_EQ(asked_by(all), 0);
  pass(301);
  EXPECT_EQ(asked_by(all), 3);

  free_dns_hostlist_cache();
  EXPECT_EQ(is_myname("lab-host"), 0);
  EXPECT_EQ(get_primaryhostname(nullptr), nullptr);
  resolver_is_down = false;
  pass(301);
  EXPECT_EQ(is_myname("lab-host"), 1);
}

TEST_F(NameTest, NamesMoveFromHostToHost) {
  EXPECT_EQ(samehost("web", "www"), 1);
  EXPECT_EQ(samehost("web", "198.51.100.2"), 1);
  lab::write_file("/etc/hosts", kHosts + "198.51.100.9 new.example.net www.example.net\n" +
                                    "198.51.100.2 new.example.net\n");
  EXPECT_EQ(is_validhostname("new.example.net"), 1);
  EXPECT_EQ(hostlist_fault(dns_hostlist_cache), "");
  EXPECT_EQ(asked_by([] { EXPECT_EQ(is_validhostname("www"), 1); }), 1) << "its host was dropped";
  // Even the host of the first name goes when the second name claims it.
  EXPECT_EQ(samehost("mail", "198.51.100.3"), 1);
  lab::write_file("/etc/hosts", kHosts + "198.51.100.7 thief mail.example.net\n");
  EXPECT_EQ(asked_by([] { EXPECT_EQ(samehost("mail", "thief"), 0); }), 1);
}

TEST_F(NameTest, StrangersCannotBecomeThisHost) {
  EXPECT_EQ(is_myname("lab-host"), 1);
  lab::write_file("/etc/hosts", kHosts + "203.0.113.5 localhost\n203.0.113.5 stranger lab-host\n");
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(is_myname("stranger"), 0);
    EXPECT_EQ(is_myname("lab-host"), 1);
    EXPECT_EQ(is_myname("192.0.2.1"), 1);
  }
}

TEST_F(NameTest, ACluster) {
  clu_set_localvirthost_hook([](const char* name) {
    return strcmp(name, "manager") == 0 || strcmp(name, "localhost") == 0 ? 1 : 0;
  });
  EXPECT_EQ(is_myname("lab-host"), 1);
  EXPECT_EQ(names_of(dns_hostlist_cache.local_host).find("127.0.0.1"), std::string::npos);
  EXPECT_EQ(is_myname("manager"), 1) << "by the hook";
  EXPECT_EQ(is_myname("web"), 0);
}

TEST_F(NameTest, HundredsOfAddresses) {
  std::string hosts = kHosts;
  for (int i = 0; i < 300; ++i) {
    hosts += "10.9." + std::to_string(i / 200) + "." + std::to_string(i % 200 + 1) + " many\n";
  }
  lab::write_file("/etc/hosts", hosts);
  EXPECT_EQ(samehost("many", "10.9.1.100"), 1);
  EXPECT_EQ(asked_by([] { EXPECT_EQ(samehost("10.9.0.1", "10.9.0.199"), 1); }), 0);
}

TEST_F(NameTest, EightThreads) {
  vx_error_set_last(0, kVxErrorErrno);
  in_threads(8, [](int thread) {
    vx_error_set_last(0, kVxErrorErrno);
    const std::string own = "client" + std::to_string(thread);
    const char* aliases[] = {"shared", nullptr};
    for (int i = 0; i < 50; ++i) {
      EXPECT_EQ(is_myname("lab-host"), 1);
      EXPECT_EQ(samehost("web", "www"), 1);
      EXPECT_EQ(is_validhostname(own.c_str()), 0);
      EXPECT_EQ(client_list_add_client(own.c_str(), aliases), 1);
      owned(get_primaryclientname("shared"));
      const in_addr broadcast = {INADDR_NONE};
      EXPECT_EQ(is_myaddr(AF_INET, &broadcast, 4), 0);
      if (i % 10 == thread) svc_time_reset();
    }
    EXPECT_EQ(vx_error_get_last(), 0) << "no lock was taken twice";
  });
}

TEST_F(NameTest, Clients) {
  const char* aliases[] = {"www", "web.example.net", nullptr};
  auto add = [&] {
    EXPECT_EQ(client_list_add_client("web", aliases), 1);
    EXPECT_EQ(client_list_add_client("mail", nullptr), 1);
    EXPECT_EQ(client_list_add_client(nullptr, aliases), 0);
  };
  EXPECT_EQ(asked_by(add), 0);
  EXPECT_TRUE(sameclient("WWW", "web") && sameclient("unknown", "Unknown"));
  EXPECT_FALSE(sameclient("web", "mail") || sameclient(nullptr, nullptr));
  EXPECT_EQ(owned(get_primaryclientname("www")), "web");
  client_list_remove_byname("www");
  EXPECT_EQ(get_primaryclientname("web"), nullptr) << "at once, not with the next purge";

  set_client_cache_update_style(kClientsNeverExpire);
  client_list_add_client("ever", nullptr);
  pass(3600);
  EXPECT_EQ(owned(get_primaryclientname("mail")), "mail");
  pass(1);
  EXPECT_EQ(get_primaryclientname("mail"), nullptr);
  EXPECT_EQ(owned(get_primaryclientname("ever")), "ever");
  free_client_hostlist_cache();
  EXPECT_EQ(get_client_cache_update_style(), 0);
  EXPECT_EQ(get_primaryclientname("ever"), nullptr);
}

}  // namespace
