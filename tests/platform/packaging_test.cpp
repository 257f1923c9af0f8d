// The names in the packaging: each file has to name the same service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "testing/project_files.h"

namespace quil::tests {

using testing::HasSubstr;

namespace {

const std::string kPackage = "quil.hardware.quilservicemanager";

}  // namespace

TEST(Packaging, ManifestDeclaresTheInterfaceAndInstanceThatTheDefinitionsHave) {
    const std::string fragment = projectText("platform/android/" + kPackage + "@1.0-service.xml");
    EXPECT_THAT(fragment, HasSubstr("<name>" + kPackage + "</name>"));
    EXPECT_THAT(fragment, HasSubstr("<transport>hwbinder</transport>"));
    EXPECT_THAT(fragment, HasSubstr("<version>1.0</version>"));
    EXPECT_THAT(fragment, HasSubstr("<name>IQuilServiceManager</name>"));
    EXPECT_THAT(fragment, HasSubstr("<instance>default</instance>"));
    EXPECT_THAT(projectText("interfaces/quilservicemanager/1.0/IQuilServiceManager.hal"),
                HasSubstr("package " + kPackage + "@1.0;"));
    EXPECT_THAT(projectText("interfaces/current.txt"),
                HasSubstr(kPackage + "@1.0::IQuilServiceManager"));
}

TEST(Packaging, InitScriptStartsTheBinaryThatIsBuiltAndNamesTheInterface) {
    const std::string script = projectText("platform/android/" + kPackage + "@1.0-service.rc");
    EXPECT_THAT(script, HasSubstr("/vendor/bin/hw/" + kPackage + "@1.0-service\n"));
    EXPECT_THAT(script, HasSubstr("interface " + kPackage + "@1.0::IQuilServiceManager default"));
    EXPECT_THAT(projectText("host/serving.cpp"), HasSubstr("registerAsService(\"default\")"));
}

}  // namespace quil::tests
