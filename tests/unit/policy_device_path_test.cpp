#include <gtest/gtest.h>

#include "Policy/device_path.h"

namespace vorn::policy {
namespace {

std::string Narrow(std::u16string_view text) { return {text.begin(), text.end()}; }

TEST(DevicePath, PipesMailslotsAndNetworkDevicesAreToldApart) {
  const struct {
    std::u16string_view path;
    DeviceKind kind;
  } cases[] = {
      {u"\\Device\\NamedPipe\\x", DeviceKind::kPipe},
      {u"\\Device\\NamedPipe\\", DeviceKind::kPipe},
      {u"\\Device\\NamedPipe", DeviceKind::kNone},
      {u"\\Device\\Mailslot\\x", DeviceKind::kMailslot},
      {u"\\Device\\Mailslot\\", DeviceKind::kNone},  // 17 units: too short to be looked at
      {u"\\device\\mup\\srv\\PIPE\\x", DeviceKind::kPipe},
      {u"\\device\\mup\\srv\\pipe", DeviceKind::kPipe},
      {u"\\device\\mup\\srv\\pipes\\x", DeviceKind::kNone},
      {u"\\device\\mup\\srv\\share\\pipe", DeviceKind::kNone},
      {u"\\device\\mup\\;lanmanredirector\\srv\\pipe\\x", DeviceKind::kPipe},
      {u"\\device\\mup\\;lanmanredirector\\srv\\share", DeviceKind::kNone},
      {u"\\Device\\Afd\\Endpoint", DeviceKind::kNetworkDevice},
      {u"\\Device\\AfdABCDEFGHI", DeviceKind::kNetworkDevice},
      {u"\\Device\\abcdefghijkl", DeviceKind::kNone},
      {u"\\Device\\Afd\\Endpoints", DeviceKind::kNone},
      {u"\\Device\\Afd", DeviceKind::kNetworkDevice},
      {u"\\Device\\Nsi", DeviceKind::kNetworkDevice},
      {u"\\Device\\Tcp6", DeviceKind::kNetworkDevice},
      {u"\\Device\\Http", DeviceKind::kNetworkDevice},
      {u"\\Device\\RawIp6", DeviceKind::kNetworkDevice},
      {u"\\Device\\RawIp", DeviceKind::kNetworkDevice},
      {u"\\Device\\Ip", DeviceKind::kNetworkDevice},
      {u"\\Device\\Ip\\x", DeviceKind::kNone},
      {u"\\??\\pipe\\x", DeviceKind::kPipe},
      {u"\\??\\pipe", DeviceKind::kPipe},
      {u"\\??\\pipework", DeviceKind::kPipe},
      {u"\\??\\pip", DeviceKind::kNone},
      {u"\\DosDevices\\pipe\\x", DeviceKind::kPipe},
      {u"\\??\\C:\\x", DeviceKind::kNone},
      {u"\\Device\\HarddiskVolume3\\pipe\\x", DeviceKind::kNone},
      {u"", DeviceKind::kNone},
  };
  for (const auto& c : cases) EXPECT_EQ(ClassifyDevicePath(c.path), c.kind) << Narrow(c.path);
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
