// Configuration files: the settings file and its corpus of bad input, the collector list and
// backups, the change test, processes.conf and proxysetting.conf.
#include <unistd.h>

#include <climits>
#include <cstring>
#include <vector>

#include "core/QVConfig.h"
#include "core_fixture.h"
#include "foundation/qvlb_mem.h"

namespace {

// Texts of the settings, null as "(null)", for one comparison.
std::vector<std::string> texts(std::initializer_list<const char*> l) {
    std::vector<std::string> v;
    for (const char* t : l) v.emplace_back(t != nullptr ? t : "(null)");
    return v;
}

class QVConfigTest : public AgentHomeTest {
  protected:
    void SetUp() override { start(1); }
    // Fresh identity and collector list, then read content as the settings file.
    int readSettings(const std::string& content) {
        QVBCISettingInit();
        qvconfig_reset();
        home_.write("config/qvsettings.conf", content);
        return read_conf_file();
    }
};

}  // namespace

TEST_F(QVConfigTest, ReadsIdentityAndPrimaryCollector) {
    ASSERT_EQ(readSettings("# settings\ntier=T1\nserver=S1\ninstance=I1\nqvcHost=h\nqvcPort=7000\n"
                           "agentTraceLevel=2\ninstrumentSleep=3\nproxyMode=1\nproxyIP=10.0.0.1\n"),
              0);
    const QVBCISetting_t& b = qvApplication->QVBCISetting;
    ASSERT_NE(qvc_server_arr, nullptr);
    EXPECT_EQ(texts({getTierName(), getAppServerName(), getAppName(), b.qvcHost, qvc_server_arr[0].qvc_host,
                     qvApplication->QVSys.proxyIP}),
              texts({"T1", "S1", "I1", "h", "h", "10.0.0.1"}));
    EXPECT_EQ(std::tie(b.qvcPort, b.num_qvc_config, server_arr_size, qvc_server_arr[0].qvc_port,
                       qvc_server_arr[0].state, qv_dr_state),
              std::make_tuple(7000, 1, 5, 7000u, 1, 0));
    EXPECT_EQ(std::tie(qvApplication->QVSys.agentTraceLevel, instrumentSleep, qvApplication->QVSys.proxyMode),
              std::make_tuple(2, 3, 1));

    // A re-read rebuilds the list instead of adding to it.
    ASSERT_EQ(read_conf_file(), 0);
    EXPECT_EQ(b.num_qvc_config, 1);
    EXPECT_STREQ(qvc_server_arr[0].qvc_host, "h");
}

TEST_F(QVConfigTest, CorpusOfBadInput) {
    EXPECT_EQ(readSettings(""), 1);
    home_.remove("config/qvsettings.conf");
    EXPECT_EQ(read_conf_file(), 1);

    // Binary content, NUL bytes included.
    std::string binary;
    for (int i = 0; i < 3000; i++) binary.push_back(static_cast<char>((i * 131 + 7) & 0xff));
    EXPECT_EQ(readSettings(binary), 1);

    // A line longer than the buffer is dropped whole: its tail, which looks like a key, is not read.
    std::string longLine = "x=" + std::string(1021, 'a') + "qvcHost=evil\n";
    EXPECT_EQ(readSettings(longLine + "qvcPort=7000\n"), 1);
    EXPECT_EQ(qvApplication->QVBCISetting.qvcHost, nullptr);
    // A line of exactly 1023 bytes still counts.
    std::string fits = "qvcHost=" + std::string(1015, 'h') + "\n";
    EXPECT_EQ(readSettings(fits + "qvcPort=7000\n"), 0);
    EXPECT_EQ(strlen(qvApplication->QVBCISetting.qvcHost), 1015u);

    EXPECT_EQ(readSettings("qvcHost h\nqvcPort 7000\n"), 1);  // no '='
    // Out-of-range numbers saturate.
    EXPECT_EQ(readSettings("qvcHost=h\nqvcPort=99999999999999999999\nagentTraceLevel=-99999999999999\n"), 0);
    EXPECT_EQ(qvApplication->QVBCISetting.qvcPort, INT_MAX);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, INT_MIN);
    qvApplication->QVSys.agentTraceLevel = 0;

    // CR LF line ends are cut.
    EXPECT_EQ(readSettings("tier=T\r\nqvcHost=h\r\nqvcPort=7000\r\n"), 0);
    EXPECT_EQ(texts({getTierName(), qvApplication->QVBCISetting.qvcHost}), texts({"T", "h"}));

    // A blank before the key makes the line a comment, and the mandatory test fails.
    EXPECT_EQ(readSettings(" qvcHost=h\nqvcPort=7000\n"), 1);
    EXPECT_EQ(qvApplication->QVBCISetting.qvcHost, nullptr);

    // key= with nothing after it is ignored; tier= gives the default tier.
    EXPECT_EQ(readSettings("tier=\nqvcHost=\nqvcPort=7000\n"), 1);
    EXPECT_STREQ(getTierName(), "Default");
    EXPECT_NE(getAppServerName(), nullptr);  // the host name
}

TEST_F(QVConfigTest, BackupsGrowTheListAndSetDrState) {
    std::string content = "qvcHost=h\nqvcPort=1\n";
    for (int i = 1; i <= 7; i++)
        content += std::string("backupQvcHostName=b") + std::to_string(i) +
                   "\nbackupQvcPort=" + std::to_string(100 + i) + "\n";
    ASSERT_EQ(readSettings(content), 0);
    EXPECT_EQ(std::tie(qv_dr_state, server_arr_size), std::make_tuple(1, 10));
    EXPECT_EQ(qvApplication->QVBCISetting.num_qvc_config, 8);
    for (int i = 1; i <= 7; i++) {
        EXPECT_EQ(qvc_server_arr[i].qvc_host, "b" + std::to_string(i));
        EXPECT_EQ(qvc_server_arr[i].qvc_port, static_cast<unsigned>(100 + i));
    }

    // A backup host without a port is not a usable backup.
    ASSERT_EQ(readSettings("qvcHost=h\nqvcPort=1\nbackupQvcHostName=b1\n"), 0);
    EXPECT_EQ(qv_dr_state, 0);
}

TEST_F(QVConfigTest, AppNameFollowsAutoScalingMode) {
    const std::string base = "qvcHost=h\nqvcPort=1\nautoScalingMode=";
    for (const auto& [mode, name] : {std::pair<std::string, std::string>{"0", "pool*"},
                                     {"3", "pool"},
                                     {"1", "pool_" + std::to_string(getpid())}}) {
        ASSERT_EQ(readSettings(base + mode + "\n"), 0);
        EXPECT_EQ(std::string(getAppName()), name) << mode;
    }
    ASSERT_EQ(readSettings(base + "2\n"), 0);
    EXPECT_EQ(getAppName(), nullptr);
    // An instance line wins over the rule.
    ASSERT_EQ(readSettings("instance=I\n" + base + "0\n"), 0);
    EXPECT_STREQ(getAppName(), "I");
    // Without a pool name the process name is used.
    qvlb_free(pool_name, "pool_name", -1);
    pool_name = nullptr;
    ASSERT_EQ(readSettings(base + "0\n"), 0);
    EXPECT_STREQ(getAppName(), "proc");
}

TEST_F(QVConfigTest, ChangeTestFlags) {
    QVBCISetting_t& b = qvApplication->QVBCISetting;
    Server_t& srv = qvApplication->Server;
    home_.remove("config/qvsettings.conf");
    EXPECT_EQ(check_file_size_of_qvsetting_files(1), 1);
    EXPECT_EQ(check_file_size_of_qvsetting_files(0), 1);

    home_.write("config/qvsettings.conf", "qvcHost=h\n");
    EXPECT_EQ(check_file_size_of_qvsetting_files(1), 1);  // never stored yet
    auto flags = std::tie(srv.testRunRunning, srv.retryForDataConn, srv.retryForAutoSensorConn,
                          b.data_thread_running, b.autoSensor_thread_running);
    flags = std::make_tuple(1, 1, 1, 1, 1);
    EXPECT_EQ(check_file_size_of_qvsetting_files(0), 0);
    EXPECT_EQ(flags, std::make_tuple(0, 0, 0, 1, 1));  // the thread flags themselves are left alone
    EXPECT_EQ(b.prevFileSize, 10);
    EXPECT_EQ(check_file_size_of_qvsetting_files(1), 0);

    home_.write("config/qvsettings.conf", "qvcHost=host\n");
    EXPECT_EQ(check_file_size_of_qvsetting_files(1), 1);
    EXPECT_EQ(check_file_size_of_qvsetting_files(1), 1);  // the test updates nothing
    EXPECT_EQ(check_file_size_of_qvsetting_files(0), 0);
    EXPECT_EQ(check_file_size_of_qvsetting_files(1), 0);
}

TEST_F(QVConfigTest, ProcessesConf) {
    readProcessConfFile();
    EXPECT_EQ(total_process_entries, 0);

    std::string content = "php-fpm.conf|1\n#comment|1\nnobar\nhttpd|0\n";
    for (int i = 0; i < 60; i++)
        content += "worker" + std::to_string(i) + ".x|" + std::to_string(i + 2) + "\n";
    home_.write("config/processes.conf", content);
    readProcessConfFile();
    ASSERT_EQ(total_process_entries, 62);
    EXPECT_STREQ(processInfoStruct[0].processName, "php-fpm");
    EXPECT_STREQ(processInfoStruct[61].processName, "worker59");
    // Case-insensitive prefix; the first row that begins so.
    EXPECT_EQ(std::make_tuple(checkProcessNameInfo("PHP"), checkProcessNameInfo("httpd"),
                              checkProcessNameInfo("worker1")),
              std::make_tuple(1, 0, 3));
    EXPECT_EQ(checkProcessNameInfo("php-fpm-long-name") + checkProcessNameInfo(nullptr), 0);

    home_.write("config/processes.conf", "a|5\n");  // a re-read replaces the table
    readProcessConfFile();
    EXPECT_EQ(std::make_tuple(total_process_entries, checkProcessNameInfo("a")), std::make_tuple(1, 5));
}

TEST_F(QVConfigTest, ProxySettingsConf) {
    EXPECT_EQ(readQVProxyConfig(), -1);

    home_.write("config/proxysetting.conf",
                "proxyConType=1\nproxyPort=9000\nfoo=bar\nqvcHost=ph\nqvcPort=7001\ntier=pt\nserver="
                "ps\ninstance=pi\n");
    EXPECT_EQ(readQVProxyConfig(), 0);
    ASSERT_NE(qvc_server_arr, nullptr);
    EXPECT_EQ(std::tie(QVProxy.proxyConType, QVProxy.proxyPort, QVProxy.qvcPort, qvc_server_arr[0].qvc_port),
              std::make_tuple(1, 9000, 7001, 7001u));
    EXPECT_EQ(texts({QVProxy.proxyHost, QVProxy.qvcHost, QVProxy.tierName, QVProxy.appServerName,
                     QVProxy.appName, qvc_server_arr[0].qvc_host}),
              texts({"0.0.0.0", "ph", "pt", "ps", "pi", "ph"}));
}

TEST(QVConfigParsing, SearchKeywordAndSplit) {
    char line[] = "TierName=abc=d";
    EXPECT_STREQ(search_keyword(line, "tier"), "abc=d");
    EXPECT_EQ(search_keyword(nullptr, "tier"), nullptr);

    char field[] = "abcdefgh=1";
    char kw[4] = {'z', 'z', 'z', 'z'};
    EXPECT_STREQ(split_key_value(field, kw, sizeof(kw)), "1");
    EXPECT_STREQ(kw, "abc");
    char bare[] = "abc";
    char kw2[8] = "keep";
    EXPECT_EQ(split_key_value(bare, kw2, sizeof(kw2)), nullptr);
    EXPECT_STREQ(kw2, "keep");  // untouched without '='
    char empty[] = "=v";
    EXPECT_STREQ(split_key_value(empty, kw2, sizeof(kw2)), "v");
    EXPECT_STREQ(kw2, "");
}
