#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "Policy/device_path.h"

namespace vorn::policy {
namespace {

std::string Narrow(std::u16string_view text) { return {text.begin(), text.end()}; }

TEST(DevicePath, PipesMailslotsAndNetworkDevicesAreToldApart) {
  const std::pair<DeviceKind, std::vector<std::u16string_view>> kinds[] = {
      {DeviceKind::kPipe,
       {u"\\Device\\NamedPipe\\x", u"\\Device\\NamedPipe\\", u"\\device\\mup\\srv\\PIPE\\x",
        u"\\device\\mup\\srv\\pipe", u"\\device\\mup\\;lanmanredirector\\srv\\pipe\\x", u"\\??\\pipe\\x",
        u"\\??\\pipe", u"\\??\\pipework", u"\\DosDevices\\pipe\\x"}},
      {DeviceKind::kMailslot, {u"\\Device\\Mailslot\\x"}},
      {DeviceKind::kNetworkDevice,
       {u"\\Device\\Afd\\Endpoint", u"\\Device\\AfdABCDEFGHI", u"\\Device\\Afd", u"\\Device\\Nsi",
        u"\\Device\\Tcp6", u"\\Device\\Http", u"\\Device\\RawIp6", u"\\Device\\RawIp", u"\\Device\\Ip"}},
      {DeviceKind::kNone,
       {u"\\Device\\NamedPipe", u"\\Device\\Mailslot\\" /* too short to be looked at */,
        u"\\device\\mup\\srv\\pipes\\x", u"\\device\\mup\\srv\\share\\pipe",
        u"\\device\\mup\\;lanmanredirector\\srv\\share", u"\\Device\\abcdefghijkl",
        u"\\Device\\Afd\\Endpoints", u"\\Device\\Ip\\x", u"\\??\\pip", u"\\??\\C:\\x",
        u"\\Device\\HarddiskVolume3\\pipe\\x", u""}},
  };
  for (const auto& [kind, paths] : kinds)
    for (const std::u16string_view path : paths) EXPECT_EQ(ClassifyDevicePath(path), kind) << Narrow(path);
}

TEST(DevicePath, RecycleBinVolumesAndShares) {
  EXPECT_TRUE(IsRecycleBinPath(u"\\Device\\HarddiskVolume3\\$RECYCLE.BIN\\S-1-5"));
  EXPECT_TRUE(IsRecycleBinPath(u"\\Device\\HarddiskVolume12\\$Recycle.Bin\\"));
  EXPECT_FALSE(IsRecycleBinPath(u"\\Device\\HarddiskVolume3\\$Recycle.Bin"));
  EXPECT_FALSE(IsRecycleBinPath(u"\\Device\\HarddiskVolume3\\a\\$Recycle.Bin\\x"));
  EXPECT_FALSE(IsRecycleBinPath(u"\\Device\\Mup\\srv\\$Recycle.Bin\\x"));

  EXPECT_TRUE(IsHardDiskVolumeOrMup(u"\\device\\HARDDISKVOLUME3\\x"));
  EXPECT_TRUE(IsHardDiskVolumeOrMup(u"\\Device\\Mup\\srv\\share"));
  EXPECT_FALSE(IsHardDiskVolumeOrMup(u"\\Device\\Mup\\srv\\pipe\\x"));
  EXPECT_FALSE(IsHardDiskVolumeOrMup(u"\\Device\\CdRom0\\x"));
}

TEST(DevicePath, NetworkDrivesMatchUpToTheirShare) {
  constexpr std::u16string_view kDrive = u"\\Device\\LanmanRedirector\\;Z:0000000000012345\\server\\share";
  EXPECT_EQ(MatchNetworkDrive(u"\\device\\lanmanredirector\\SERVER\\share\\f", kDrive), 37u);
  EXPECT_EQ(MatchNetworkDrive(u"\\device\\lanmanredirector\\server\\share", kDrive), 37u);
  EXPECT_EQ(MatchNetworkDrive(u"\\device\\lanmanredirector\\server\\shared", kDrive), kNotFound);
  EXPECT_EQ(MatchNetworkDrive(u"\\device\\lanmanredirectorx\\server\\share", kDrive), kNotFound);
  EXPECT_EQ(MatchNetworkDrive(u"\\device\\mup\\server\\share", kDrive), kNotFound);
  EXPECT_EQ(MatchNetworkDrive(u"\\device\\x\\server", u"\\device\\x\\server"), kNotFound);
  EXPECT_EQ(MatchNetworkDrive(u"\\device\\x\\", u"\\device\\x\\;"), kNotFound);
  EXPECT_EQ(MatchNetworkDrive(u"\\device\\x", u"\\device\\x"), kNotFound);
}

}  // namespace
}  // namespace vorn::policy
