#include "interfaces/InterfaceTable.h"

namespace probemond {

const char* const interfaceNames[] = {"wlan0",       "wlan1",       "rmnet_data0", "rmnet_data1",
                                      "rmnet_data2", "rmnet_data3", "rmnet_data4", "rmnet_data5",
                                      "rmnet_data6", "rmnet_data7", nullptr};
const char* const interfaceFwmarks[] = {"0xa0", "0xa1", "0xd0", "0xd1", "0xd2", "0xd3",
                                        "0xd4", "0xd5", "0xd6", "0xd7", nullptr};
const char* const interfacePrios[] = {"29500", "29600", "29700", "29800", "29900", "30000",
                                      "30100", "30200", "30300", "30400", nullptr};

bool isDataInterface(const std::string& name) { return name.rfind("rmnet_data", 0) == 0; }

}  // namespace probemond
