// test-labels: system
// Carrier, radio and Wi-Fi facts read from ModemManager and NetworkManager, as stood in for by
// python-dbusmock on a private bus, and the fall-back to set facts when no service answers.
#include "lmkit/platform/SystemNetworkFacts.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "lmkit/netinfo/NetworkInfoProvider.hpp"
#include "support/TestSupport.hpp"

extern char** environ;

using namespace lmkit;
using lmkit::testing::runCommand;
using lmkit::testing::TempDir;
using lmkit::testing::waitFor;

namespace {

// The system interpreter: dbusmock is a Debian package, not part of any other Python.
constexpr const char* kPython = "/usr/bin/python3";
constexpr const char* kModem0 = "/org/freedesktop/ModemManager1/Modem/0";

// Stages the services through dbusmock's own interface: objects, properties and methods.
constexpr const char* kMockScript = R"PY(
import sys, time, dbus
bus = dbus.bus.BusConnection(sys.argv[1])
MM, NM = 'org.freedesktop.ModemManager1', 'org.freedesktop.NetworkManager'
MM_ROOT = '/org/freedesktop/ModemManager1'

def wait(name):
    deadline = time.monotonic() + 10
    while not bus.name_has_owner(name):
        if time.monotonic() > deadline:
            sys.exit(name + ' did not start')
        time.sleep(0.02)

def mock(name, path):
    return dbus.Interface(bus.get_object(name, path), 'org.freedesktop.DBus.Mock')

def modems():
    # Modem 0: not registered, a SIM of operator 46001. Modem 1: on LTE with 5G NR (non-standalone)
    # at operator 46000, no SIM. Modem 1 carries the data.
    wait(MM)
    root = mock(MM, MM_ROOT)
    root.AddObject(MM_ROOT + '/SIM/0', MM + '.Sim',
                   {'OperatorIdentifier': '46001', 'OperatorName': 'Home'}, [])
    root.AddObject(MM_ROOT + '/Modem/0', MM + '.Modem',
                   {'AccessTechnologies': dbus.UInt32(0),
                    'Sim': dbus.ObjectPath(MM_ROOT + '/SIM/0')}, [])
    root.AddObject(MM_ROOT + '/Modem/1', MM + '.Modem',
                   {'AccessTechnologies': dbus.UInt32((1 << 14) | (1 << 15)),
                    'Sim': dbus.ObjectPath('/')}, [])
    mock(MM, MM_ROOT + '/Modem/1').AddProperties(
        MM + '.Modem.Modem3gpp', {'OperatorCode': '46000', 'OperatorName': 'Serving'})

def umts():
    modem = dbus.Interface(bus.get_object(MM, MM_ROOT + '/Modem/1'), dbus.PROPERTIES_IFACE)
    modem.Set(MM + '.Modem', 'AccessTechnologies', dbus.UInt32(1 << 5))

def wifi():
    wait(NM)
    nm = mock(NM, '/org/freedesktop')
    nm.AddEthernetDevice('eth0', 'eth0', 100)
    device = nm.AddWiFiDevice('wlan0', 'wlan0', 100)
    ap = nm.AddAccessPoint(device, 'ap0', 'CafeNet', '02:11:22:33:44:55', 2, 2437, 54000, 80, 0)
    mock(NM, device).AddProperty(NM + '.Device.Wireless', 'ActiveAccessPoint', dbus.ObjectPath(ap))

def hang():
    wait(MM)
    mock(MM, MM_ROOT).AddMethod('org.freedesktop.DBus.ObjectManager', 'GetManagedObjects', '',
                                'a{oa{sa{sv}}}', 'time.sleep(5); ret = {}')

for step in sys.argv[2:]:
    globals()[step]()
)PY";

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// A private bus with dbusmock services on it, named to the kit as its system bus. Every process
/// started here is stopped and reaped with the fixture.
class SystemNetworkFactsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        daemon_ = runCommand("command -v dbus-daemon");
        while (!daemon_.empty() && daemon_.back() == '\n')
            daemon_.pop_back();
        if (daemon_.empty())
            GTEST_SKIP() << "dbus-daemon is not installed (Debian package dbus)";
        int status = -1;
        runCommand(std::string(kPython) + " -c 'import dbusmock' 2>/dev/null", &status);
        if (status != 0)
            GTEST_SKIP() << "python3-dbusmock is not installed for " << kPython;

        std::ofstream(dir_.path() / "mock.py") << kMockScript;
        auto addressFile = dir_.path() / "address";
        start({daemon_, "--session", "--nofork", "--nopidfile", "--print-address=1"}, addressFile);
        ASSERT_TRUE(waitFor([&] {
            std::ifstream in(addressFile);
            return std::getline(in, address_) && in.good();
        })) << "the private bus did not start";
        setenv(SystemNetworkFacts::kBusAddressVariable, address_.c_str(), 1);
    }

    void TearDown() override {
        unsetenv(SystemNetworkFacts::kBusAddressVariable);
        // Services first, so that none of them outlives the bus it was talking on.
        for (auto pid = pids_.rbegin(); pid != pids_.rend(); ++pid) {
            kill(*pid, SIGTERM);
            waitpid(*pid, nullptr, 0);
        }
    }

    /// Starts `argv` with the private bus as its system bus; output goes to `output`.
    void start(std::vector<std::string> argv, const std::filesystem::path& output) {
        std::vector<std::string> environment;
        for (char** e = environ; *e != nullptr; ++e)
            environment.emplace_back(*e);
        environment.push_back("DBUS_SYSTEM_BUS_ADDRESS=" + address_);
        std::vector<char*> args, envp;
        for (auto& a : argv)
            args.push_back(a.data());
        args.push_back(nullptr);
        for (auto& e : environment)
            envp.push_back(e.data());
        envp.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        pid_t pid = -1;
        int rc = posix_spawn(&pid, argv[0].c_str(), &actions, nullptr, args.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        ASSERT_EQ(rc, 0) << "cannot start " << argv[0];
        pids_.push_back(pid);
    }

    /// A ModemManager stand-in: an object manager at ModemManager's path, objects added later.
    void startModemManager() {
        start({kPython, "-m", "dbusmock", "--system", "-m", "org.freedesktop.ModemManager1",
               "/org/freedesktop/ModemManager1", "org.freedesktop.ModemManager1"},
              dir_.path() / "modemmanager.log");
    }
    void startNetworkManager() {
        start({kPython, "-m", "dbusmock", "--system", "-t", "networkmanager"},
              dir_.path() / "networkmanager.log");
    }
    /// Runs the steps of the mock script against the private bus (waiting for its services).
    void stage(const std::string& steps) {
        int status = -1;
        std::string output =
            runCommand(std::string(kPython) + " " + (dir_.path() / "mock.py").string() + " '" +
                           address_ + "' " + steps + " 2>&1",
                       &status);
        ASSERT_EQ(status, 0) << output;
    }

    /// A provider over the system services, with no interfaces so that nothing else is read.
    static std::unique_ptr<NetworkInfoProvider> systemProvider() {
        NetworkInfoProvider::Sources sources;
        sources.interfaces = [] { return std::optional(std::vector<InterfaceAddress>{}); };
        sources.watchChanges = false;
        sources.systemServices = true;
        return std::make_unique<NetworkInfoProvider>(std::move(sources));
    }

    TempDir dir_;
    std::string daemon_;
    std::string address_;
    std::vector<pid_t> pids_;
};

TEST_F(SystemNetworkFactsTest, ReadsCarrierRadioAndWiFiFromTheServices) {
    startModemManager();
    startNetworkManager();
    stage("modems wifi");

    auto modems = SystemNetworkFacts::modems();
    ASSERT_TRUE(modems.has_value());
    ASSERT_EQ(modems->size(), 2u);
    EXPECT_EQ((*modems)[0].path, kModem0);
    EXPECT_EQ((*modems)[0].simOperatorCode, "46001");
    EXPECT_EQ((*modems)[0].operatorCode, std::nullopt);
    EXPECT_EQ((*modems)[1].operatorCode, "46000");
    EXPECT_EQ((*modems)[1].accessTechnologies, 0xc000u);

    // The registered modem carries data: its network is the carrier, LTE with NR is NR NSA.
    auto provider = systemProvider();
    EXPECT_EQ(provider->carrierTypeCode(), "46000");
    EXPECT_EQ(provider->carrier(), CarrierMobile);
    EXPECT_EQ(provider->carrierName(), "Serving");
    EXPECT_EQ(provider->currentRadioAccessTechnology(), kRadioAccessTechnologyNRNSA);
    EXPECT_EQ(provider->currentNetworkFormat(), NetworkType5G);
    EXPECT_EQ(provider->networkInfo().answeringService(), "ModemManager");

    // Only the Wi-Fi device is listed; its access point gives SSID and BSSID.
    auto wifi = provider->wifiSSIDInfo();
    ASSERT_TRUE(wifi.has_value());
    EXPECT_EQ(wifi->ssid, "CafeNet");
    EXPECT_EQ(wifi->bssid, "02:11:22:33:44:55");
    EXPECT_EQ(provider->captiveNetwork().supportedInterfaces(), std::vector<std::string>{"wlan0"});
    EXPECT_EQ(provider->captiveNetwork().answeringService(), "NetworkManager");

    // A reading stands for its age: only an object whose reading is old sees the drop to UMTS.
    auto cached = TelephonyNetworkInfo::fromModemManager(std::chrono::hours(1));
    auto fresh = TelephonyNetworkInfo::fromModemManager(std::chrono::milliseconds(0));
    EXPECT_EQ(cached->compatibleCurrentRadioAccessTechnology(), kRadioAccessTechnologyNRNSA);
    stage("umts");
    EXPECT_EQ(cached->compatibleCurrentRadioAccessTechnology(), kRadioAccessTechnologyNRNSA);
    EXPECT_EQ(fresh->compatibleCurrentRadioAccessTechnology(), kRadioAccessTechnologyWCDMA);

    // What is set wins, table by table: the set radio and Wi-Fi, the carrier still the modem's.
    auto& telephony = provider->networkInfo();
    telephony.setDataServiceIdentifier("1");
    telephony.setServiceCurrentRadioAccessTechnology({{"1", kRadioAccessTechnologyEdge}});
    provider->captiveNetwork().setCurrentNetworkInfo("en0", {{"SSID", "Set"}, {"BSSID", "b"}});
    EXPECT_EQ(provider->currentNetworkFormat(), NetworkType2G);
    EXPECT_EQ(provider->carrierTypeCode(), "46000");
    EXPECT_EQ(provider->wifiSSIDInfo()->ssid, "Set");
    telephony.setServiceSubscriberCellularProviders({});
    EXPECT_EQ(provider->carrierTypeCode(), std::nullopt);
}

TEST_F(SystemNetworkFactsTest, WithoutServicesTheSetFactsAnswerAtOnce) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SystemNetworkFacts::modems(), std::nullopt);
    EXPECT_EQ(SystemNetworkFacts::wifiDevices(), std::nullopt);
    auto provider = systemProvider();
    EXPECT_EQ(provider->carrier(), CarrierUnknown);
    EXPECT_EQ(provider->currentRadioAccessTechnology(), std::nullopt);
    EXPECT_EQ(provider->wifiSSIDInfo(), std::nullopt);
    EXPECT_EQ(provider->networkInfo().answeringService(), std::nullopt);
    EXPECT_EQ(provider->captiveNetwork().answeringService(), std::nullopt);
    provider->networkInfo().setDataServiceIdentifier("1");
    provider->networkInfo().setServiceCurrentRadioAccessTechnology(
        {{"1", kRadioAccessTechnologyLTE}});
    EXPECT_EQ(provider->currentNetworkFormat(), NetworkType4G);

    // A bus that is not there at all fails as fast as a bus without the services.
    setenv(SystemNetworkFacts::kBusAddressVariable, "unix:path=/nonexistent/bus", 1);
    EXPECT_EQ(SystemNetworkFacts::modems(), std::nullopt);
    EXPECT_LT(secondsSince(start), 0.5) << "an absent service must not cost a time-out";
}

TEST_F(SystemNetworkFactsTest, AHungServiceCostsOneTimeOutPerReading) {
    startModemManager();
    stage("hang");
    auto telephony = TelephonyNetworkInfo::fromModemManager();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(telephony->compatibleCurrentRadioAccessTechnology(), std::nullopt);
    double first = secondsSince(start);
    EXPECT_GE(first, 0.4);
    EXPECT_LT(first, 3.0);  // one time-out, with room for a loaded or instrumented build
    // The failed reading stands too, so the next questions do not wait again.
    EXPECT_EQ(telephony->currentSubscriberCellularProvider(), std::nullopt);
    EXPECT_EQ(telephony->answeringService(), std::nullopt);
    EXPECT_LT(secondsSince(start) - first, 0.4);  // less than another time-out
}

TEST(ModemAccessTechnology, MostCapableTechnologyNamesTheRadio) {
    EXPECT_EQ(radioAccessTechnologyOfModem(0), std::nullopt);
    EXPECT_EQ(radioAccessTechnologyOfModem(ModemAccessTechnologyPOTS), std::nullopt);
    EXPECT_EQ(radioAccessTechnologyOfModem(ModemAccessTechnologyGSM), kRadioAccessTechnologyGPRS);
    EXPECT_EQ(radioAccessTechnologyOfModem(ModemAccessTechnologyGPRS | ModemAccessTechnologyEDGE),
              kRadioAccessTechnologyEdge);
    EXPECT_EQ(radioAccessTechnologyOfModem(ModemAccessTechnologyUMTS), kRadioAccessTechnologyWCDMA);
    EXPECT_EQ(radioAccessTechnologyOfModem(ModemAccessTechnologyUMTS | ModemAccessTechnologyHSUPA),
              kRadioAccessTechnologyHSUPA);
    EXPECT_EQ(radioAccessTechnologyOfModem(ModemAccessTechnologyHSUPA | ModemAccessTechnologyHSPA),
              kRadioAccessTechnologyHSDPA);
    EXPECT_EQ(radioAccessTechnologyOfModem(ModemAccessTechnology1xRTT | ModemAccessTechnologyEVDOA),
              kRadioAccessTechnologyCDMAEVDORevA);
    EXPECT_EQ(radioAccessTechnologyOfModem(ModemAccessTechnologyLTECatM),
              kRadioAccessTechnologyLTE);
    EXPECT_EQ(radioAccessTechnologyOfModem(ModemAccessTechnology5GNR), kRadioAccessTechnologyNR);
}

TEST(ModemAccessTechnology, SimHomeOperatorIsTheCarrier) {
    ModemFacts roaming;
    roaming.operatorCode = "23415";
    roaming.simOperatorCode = "460011";  // a three-digit network code
    roaming.accessTechnologies = ModemAccessTechnologyLTE;
    ModemFacts idle;
    idle.operatorCode = "46003";
    auto facts = cellularFactsOfModems({idle, roaming});
    ASSERT_TRUE(facts.provider.has_value());
    EXPECT_EQ(facts.provider->mobileCountryCode, "460");
    EXPECT_EQ(facts.provider->mobileNetworkCode, "011");
    EXPECT_EQ(facts.radioAccessTechnology, kRadioAccessTechnologyLTE);
    EXPECT_EQ(cellularFactsOfModems({}).provider, std::nullopt);
}

}  // namespace
