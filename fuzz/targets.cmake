# Each target once, for the fuzzers here and for the seeds that tests/fuzz runs.
nimbrel2_fuzz_target(gvcp_command SOURCES ${PROJECT_SOURCE_DIR}/fuzz/GvcpCommandFuzz.cpp LINKS nimbrel2_gvcp)
nimbrel2_fuzz_target(gvcp_acknowledge SOURCES ${PROJECT_SOURCE_DIR}/fuzz/GvcpAcknowledgeFuzz.cpp LINKS nimbrel2_gvcp)
nimbrel2_fuzz_target(gvcp_discovery SOURCES ${PROJECT_SOURCE_DIR}/fuzz/GvcpDiscoveryFuzz.cpp LINKS nimbrel2_gvcp)
nimbrel2_fuzz_target(simulated_camera SOURCES ${PROJECT_SOURCE_DIR}/fuzz/SimulatedCameraFuzz.cpp LINKS nimbrel2_simulated)
nimbrel2_fuzz_target(self_id LINKS nimbrel2_topology
  SOURCES ${PROJECT_SOURCE_DIR}/fuzz/SelfIdFuzz.cpp ${PROJECT_SOURCE_DIR}/tests/topology/TreeSupport.cpp)
nimbrel2_fuzz_target(usb_topology LINKS nimbrel2_topology
  SOURCES ${PROJECT_SOURCE_DIR}/fuzz/UsbTopologyFuzz.cpp ${PROJECT_SOURCE_DIR}/tests/topology/TreeSupport.cpp)
nimbrel2_fuzz_target(udp_in_ip SOURCES ${PROJECT_SOURCE_DIR}/fuzz/UdpInIpFuzz.cpp LINKS nimbrel2_linux_gige)
nimbrel2_fuzz_target(netlink_messages SOURCES ${PROJECT_SOURCE_DIR}/fuzz/NetlinkMessagesFuzz.cpp LINKS nimbrel2_base)
nimbrel2_fuzz_target(config_rom SOURCES ${PROJECT_SOURCE_DIR}/fuzz/ConfigRomFuzz.cpp LINKS nimbrel2_linux_firewire)
nimbrel2_fuzz_target(topology_map SOURCES ${PROJECT_SOURCE_DIR}/fuzz/TopologyMapFuzz.cpp LINKS nimbrel2_linux_firewire)
nimbrel2_fuzz_target(uevent SOURCES ${PROJECT_SOURCE_DIR}/fuzz/UeventFuzz.cpp LINKS nimbrel2_base)
nimbrel2_fuzz_target(usb_descriptors SOURCES ${PROJECT_SOURCE_DIR}/fuzz/UsbDescriptorsFuzz.cpp LINKS nimbrel2_linux_usb)
nimbrel2_fuzz_target(gencp_acknowledge SOURCES ${PROJECT_SOURCE_DIR}/fuzz/GenCpAcknowledgeFuzz.cpp LINKS nimbrel2_linux_usb)
nimbrel2_fuzz_target(arp_owner SOURCES ${PROJECT_SOURCE_DIR}/fuzz/ArpOwnerFuzz.cpp LINKS nimbrel2_linux_gige)
nimbrel2_fuzz_target(gvcp_reply SOURCES ${PROJECT_SOURCE_DIR}/fuzz/GvcpReplyFuzz.cpp LINKS nimbrel2_linux_gige)
nimbrel2_fuzz_target(netstat SOURCES ${PROJECT_SOURCE_DIR}/fuzz/NetstatFuzz.cpp LINKS nimbrel2_base)
