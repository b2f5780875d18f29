// SPDX-License-Identifier: Apache-2.0
// The XML text itself, and its padding. Any thread, no lock.
#include "platform/simulated/GenicamDescription.h"

#include <string>

namespace Nimbrel2::Platform::Simulated {
namespace {

constexpr std::string_view DescriptionText = R"xml(<?xml version="1.0" encoding="utf-8"?>
<RegisterDescription ModelName="SimulatedGigECamera" VendorName="Nimbrel" ToolTip="A simulated GigE Vision camera"
  StandardNameSpace="GEV" SchemaMajorVersion="1" SchemaMinorVersion="1" SchemaSubMinorVersion="0" MajorVersion="1"
  MinorVersion="0" SubMinorVersion="0" ProductGuid="6F0A4C52-1B7D-4E0B-9D5C-2A9E1D3C7B10"
  VersionGuid="0D9B7E36-52A1-4C58-8F3E-7C41A6B2E9D4" xmlns="http://www.genicam.org/GenApi/Version_1_1"
  xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance"
  xsi:schemaLocation="http://www.genicam.org/GenApi/Version_1_1 http://www.genicam.org/GenApi/GenApiSchema_Version_1_1.xsd">
  <Category Name="Root" NameSpace="Standard">
    <pFeature>DeviceControl</pFeature>
    <pFeature>ImageFormatControl</pFeature>
    <pFeature>AcquisitionControl</pFeature>
    <pFeature>TransportLayerControl</pFeature>
  </Category>
  <Category Name="DeviceControl" NameSpace="Standard">
    <pFeature>DeviceVendorName</pFeature>
    <pFeature>DeviceModelName</pFeature>
    <pFeature>DeviceVersion</pFeature>
    <pFeature>DeviceID</pFeature>
    <pFeature>DeviceUserID</pFeature>
  </Category>
  <StringReg Name="DeviceVendorName" NameSpace="Standard"><Address>0x48</Address><Length>32</Length><AccessMode>RO</AccessMode><pPort>Device</pPort></StringReg>
  <StringReg Name="DeviceModelName" NameSpace="Standard"><Address>0x68</Address><Length>32</Length><AccessMode>RO</AccessMode><pPort>Device</pPort></StringReg>
  <StringReg Name="DeviceVersion" NameSpace="Standard"><Address>0x88</Address><Length>32</Length><AccessMode>RO</AccessMode><pPort>Device</pPort></StringReg>
  <StringReg Name="DeviceID" NameSpace="Standard"><Address>0xD8</Address><Length>16</Length><AccessMode>RO</AccessMode><pPort>Device</pPort></StringReg>
  <StringReg Name="DeviceUserID" NameSpace="Standard"><Address>0xE8</Address><Length>16</Length><AccessMode>RW</AccessMode><pPort>Device</pPort></StringReg>
  <Category Name="ImageFormatControl" NameSpace="Standard">
    <pFeature>Width</pFeature>
    <pFeature>Height</pFeature>
    <pFeature>PixelFormat</pFeature>
  </Category>
  <Integer Name="Width" NameSpace="Standard"><pValue>WidthRegister</pValue><Min>4</Min><Max>4096</Max><Inc>4</Inc></Integer>
  <IntReg Name="WidthRegister"><Address>0xA000</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort><Sign>Unsigned</Sign><Endianess>BigEndian</Endianess></IntReg>
  <Integer Name="Height" NameSpace="Standard"><pValue>HeightRegister</pValue><Min>1</Min><Max>4096</Max></Integer>
  <IntReg Name="HeightRegister"><Address>0xA004</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort><Sign>Unsigned</Sign><Endianess>BigEndian</Endianess></IntReg>
  <Enumeration Name="PixelFormat" NameSpace="Standard"><EnumEntry Name="Mono8" NameSpace="Standard"><Value>0x01080001</Value></EnumEntry><pValue>PixelFormatRegister</pValue></Enumeration>
  <IntReg Name="PixelFormatRegister"><Address>0xA008</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort><Sign>Unsigned</Sign><Endianess>BigEndian</Endianess></IntReg>
  <Category Name="AcquisitionControl" NameSpace="Standard">
    <pFeature>AcquisitionMode</pFeature>
    <pFeature>AcquisitionStart</pFeature>
    <pFeature>AcquisitionStop</pFeature>
    <pFeature>ExposureTimeRaw</pFeature>
  </Category>
  <Enumeration Name="AcquisitionMode" NameSpace="Standard"><EnumEntry Name="Continuous" NameSpace="Standard"><Value>0</Value></EnumEntry><EnumEntry Name="SingleFrame" NameSpace="Standard"><Value>1</Value></EnumEntry><pValue>AcquisitionModeRegister</pValue></Enumeration>
  <IntReg Name="AcquisitionModeRegister"><Address>0xA00C</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort><Sign>Unsigned</Sign><Endianess>BigEndian</Endianess></IntReg>
  <Command Name="AcquisitionStart" NameSpace="Standard"><pValue>AcquisitionCommandRegister</pValue><CommandValue>1</CommandValue></Command>
  <Command Name="AcquisitionStop" NameSpace="Standard"><pValue>AcquisitionCommandRegister</pValue><CommandValue>0</CommandValue></Command>
  <IntReg Name="AcquisitionCommandRegister"><Address>0xA010</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort><Sign>Unsigned</Sign><Endianess>BigEndian</Endianess></IntReg>
  <Integer Name="ExposureTimeRaw" NameSpace="Custom"><pValue>ExposureTimeRegister</pValue><Min>10</Min><Max>1000000</Max><Unit>us</Unit></Integer>
  <IntReg Name="ExposureTimeRegister"><Address>0xA014</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort><Sign>Unsigned</Sign><Endianess>BigEndian</Endianess></IntReg>
  <Category Name="TransportLayerControl" NameSpace="Standard">
    <pFeature>PayloadSize</pFeature>
    <pFeature>TLParamsLocked</pFeature>
    <pFeature>GevCurrentIPAddress</pFeature>
    <pFeature>GevHeartbeatTimeout</pFeature>
  </Category>
  <IntSwissKnife Name="PayloadSize" NameSpace="Standard"><pVariable Name="W">Width</pVariable><pVariable Name="H">Height</pVariable><Formula>W * H</Formula></IntSwissKnife>
  <Integer Name="TLParamsLocked" NameSpace="Standard"><pValue>TLParamsLockedRegister</pValue><Min>0</Min><Max>1</Max></Integer>
  <IntReg Name="TLParamsLockedRegister"><Address>0xA018</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort><Sign>Unsigned</Sign><Endianess>BigEndian</Endianess></IntReg>
  <IntReg Name="GevCurrentIPAddress" NameSpace="Standard"><Address>0x24</Address><Length>4</Length><AccessMode>RO</AccessMode><pPort>Device</pPort><Sign>Unsigned</Sign><Endianess>BigEndian</Endianess></IntReg>
  <IntReg Name="GevHeartbeatTimeout" NameSpace="Standard"><Address>0x938</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort><Sign>Unsigned</Sign><Endianess>BigEndian</Endianess></IntReg>
  <Port Name="Device" NameSpace="Standard"/>
</RegisterDescription>
)xml";

std::string PadToWords(std::string_view text) {
    std::string padded(text);
    padded.resize((padded.size() + 3) / 4 * 4, '\n');
    return padded;
}

}  // namespace

std::string_view GetGenicamDescription() {
    static const std::string* const padded = new std::string(PadToWords(DescriptionText));
    return *padded;
}

}  // namespace Nimbrel2::Platform::Simulated
