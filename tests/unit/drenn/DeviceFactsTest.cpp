#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "drenn/api/internal/DeviceFacts.h"
#include "support/TempFolder.h"
#include "support/ThrownText.h"

namespace {

using drenn::api::DeviceFact;
using drenn::api::DeviceFacts;

class DeviceFactsTest : public testing::Test {
protected:
    void Put(const std::string& name, const std::string& content) const {
        std::filesystem::create_directories(std::filesystem::path(root.Path(name)).parent_path());
        root.Write(name, content);
    }
    std::string Fact(DeviceFact fact) const {
        return DeviceFacts(root.Path("device.ini"), root.Path())[fact].value_or("(nobody knows)");
    }

    const TempFolder root;
};

TEST_F(DeviceFactsTest, EachFactComesFromTheFirstThatKnowsIt) {
    EXPECT_EQ(Fact(DeviceFact::SerialNumber), "(nobody knows)");
    Put("sys/class/dmi/id/product_serial", "To be filled by O.E.M.\n");
    Put("sys/class/dmi/id/product_name", "Bench\n");
    Put("etc/os-release", "NAME=x\nPRETTY_NAME=\"Camera Linux 3\"\n");
    EXPECT_EQ(Fact(DeviceFact::SerialNumber), "(nobody knows)");
    EXPECT_EQ(Fact(DeviceFact::ModelName), "Bench");
    EXPECT_EQ(Fact(DeviceFact::OperatingSystem), "Camera Linux 3");

    using namespace std::string_literals;
    Put("proc/device-tree/model", "Board Two\0"s);
    Put("proc/device-tree/serial-number", "S-1\0"s);
    Put("proc/device-tree/compatible", "maker,board-2\0maker,board\0maker,soc\0"s);
    EXPECT_EQ(Fact(DeviceFact::ModelName), "Board Two");
    EXPECT_EQ(Fact(DeviceFact::SerialNumber), "S-1");
    EXPECT_EQ(Fact(DeviceFact::HardwareId), "maker,board-2");
    EXPECT_EQ(Fact(DeviceFact::HardwareFamily), "maker,soc");

    Put("device.ini", "[device]\nmodel.name = Doorbell\nserial.number =\n");
    EXPECT_EQ(Fact(DeviceFact::ModelName), "Doorbell");
    EXPECT_EQ(Fact(DeviceFact::SerialNumber), "S-1") << "an empty value says nothing";
}

TEST_F(DeviceFactsTest, AFileThatCannotBeReadIsAnError) {
    Put("device.ini", "[device\n");
    EXPECT_NE(ThrownText([&] { Fact(DeviceFact::ModelName); }).find("device.ini:1"), std::string::npos);
}

} // namespace
