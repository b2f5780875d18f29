// SPDX-License-Identifier: Apache-2.0
// Tables, paragraphs and JSON of cameras. Main thread only; no lock.
#include "tools/nimbrel/ListTexts.h"

#include <algorithm>

#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/SearchReport.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

const CameraColumn& ColumnOf(const std::string& name) {
    const auto& columns = CameraColumns();
    return *std::find_if(columns.begin(), columns.end(),
                         [&](const CameraColumn& column) { return name == column.name; });
}

// The serial number is what commands take; the text is worth a column where it says more.
std::vector<const CameraColumn*> UsualColumns(const std::vector<Camera>& cameras) {
    const bool anyText = std::any_of(cameras.begin(), cameras.end(), HasSerialText);
    const bool anyGigE = std::any_of(cameras.begin(), cameras.end(), [](const Camera& c) { return c.IsGigE(); });
    std::vector<const CameraColumn*> columns{&ColumnOf("index"), &ColumnOf("serial")};
    if (anyText) {
        columns.push_back(&ColumnOf("serial_text"));
    }
    columns.push_back(&ColumnOf("interface"));
    if (anyGigE) {
        columns.push_back(&ColumnOf("ip"));
    }
    columns.push_back(&ColumnOf("vendor"));
    columns.push_back(&ColumnOf("model"));
    return columns;
}

Table CameraTable(const std::vector<Camera>& cameras, const std::vector<const CameraColumn*>& columns) {
    Table table;
    for (const CameraColumn* column : columns) {
        table.AddColumn(column->header, column->align, column->width);
    }
    for (const Camera& camera : cameras) {
        std::vector<Cell> cells;
        for (const CameraColumn* column : columns) {
            const bool isBus = column == &ColumnOf("interface");
            cells.emplace_back(column->text(camera), isBus ? ColourOf(camera.interfaceType) : Colour::None);
        }
        table.AddRow(cells);
    }
    return table;
}

std::string DeviceTable(const std::vector<Device>& devices, bool coloured) {
    Table table;
    table.AddColumn("#", Table::Align::Right);
    table.AddColumn("BUS");
    table.AddColumn("GUID");
    for (const Device& device : devices) {
        table.AddRow({std::to_string(device.index),
                      {FormatInterface(device.interfaceType), ColourOf(device.interfaceType)},
                      FormatGuid(device.guid)});
    }
    return table.Render(OutputWidth(), coloured);
}

// "5 Gbit/s by the camera, 480 Mbit/s by its port": as far as it is known.
std::string MostSpeed(const Camera& camera) {
    std::string text;
    if (camera.cameraSpeed != 0) {
        text = FormatSpeed(camera.cameraSpeed) + " by the camera";
    }
    if (camera.portSpeed != 0) {
        text += (text.empty() ? "" : ", ") + FormatSpeed(camera.portSpeed) + " by its port";
    }
    return text;
}

std::string DescribeUnusable(const std::string& heading, bool isListed, const std::vector<HeardCamera>& cameras) {
    std::string text;
    for (const HeardCamera& heard : cameras) {
        if (heard.isListed != isListed) {
            continue;
        }
        text += "  " + NameOf(heard.camera) + " at " + FormatSubnet(heard.camera.ip, heard.camera.subnet) +
                (heard.interface == nullptr ? "" : " on " + ForTerminal(heard.interface->interface.name)) + ": " +
                ForTerminal(heard.Explain()) + "\n";
    }
    return text.empty() ? text : "\n" + heading + "\n" + text;
}

// What follows the cameras in either form.
std::string Remarks(const Listed& listed, bool coloured) {
    std::string text;
    for (const std::string& sentence : listed.cut) {
        text += "\n" + sentence + "\n";
    }
    if (!listed.devices.empty()) {
        text += "\nIEEE 1394 devices other than cameras:\n" + DeviceTable(listed.devices, coloured);
    }
    if (listed.unusable.empty()) {
        return text;
    }
    text += DescribeUnusable("Heard on the network, but not usable:", false, listed.unusable);
    // It is there, and an application may have to know; only its registers do not answer.
    text += DescribeUnusable("Listed, but not usable now:", true, listed.unusable);
    return text + CureForUnusable(listed.unusable);
}

std::string DescribeSearch(const CommandContext& context) {
    const Platform::GigESearchReport report = ReadSearchReport();
    const std::vector<std::string> interfaces = context.GetSearchedInterfaces(report);
    if (interfaces.empty() && context.GetRig()) {
        return "GigE: the rig has no network interface that is up.\n";
    }
    if (interfaces.empty() && !report.problems.empty()) {
        return "GigE: no network interface was searched.\n";
    }
    if (interfaces.empty()) {
        return "GigE: no network interface is up with a link and an IPv4 address (loopback must be\n"
               "named: `--interface lo`).\n";
    }
    std::vector<std::string> shown;
    for (const std::string& name : interfaces) {
        shown.push_back(ForTerminal(name));
    }
    return "GigE: searched " + Enumerate(shown) + ".\n";
}

}  // namespace

std::string ListAsJson(const Listed& listed, const CommandContext& context) {
    Json json{{"cameras", Json::array()}, {"devices", Json::array()}, {"searched", context.SearchedAsJson()}};
    for (const Camera& camera : listed.cameras) {
        json["cameras"].push_back(ToJson(camera));
    }
    for (const Device& device : listed.devices) {
        json["devices"].push_back(ToJson(device));
    }
    return Dump(json, 2);
}

std::string ListAsTable(const Listed& listed, const std::vector<const CameraColumn*>& columns, bool coloured) {
    if (listed.cameras.empty()) {
        return Remarks(listed, coloured);
    }
    const Table table = CameraTable(listed.cameras, columns.empty() ? UsualColumns(listed.cameras) : columns);
    const std::size_t width = OutputWidth();
    if (!table.Fits(width) && columns.empty()) {
        return ListAsParagraphs(listed, coloured);
    }
    std::string text = table.Render(width, coloured);
    if (listed.cameras.size() > 1) {
        text += "\n" + CountOf(listed.cameras.size(), "camera") + "\n";
    }
    return text + Remarks(listed, coloured);
}

std::string ListAsParagraphs(const Listed& listed, bool coloured) {
    std::string text;
    for (const Camera& camera : listed.cameras) {
        const auto line = [&text](const char* name, const std::string& value) {
            if (!value.empty()) {
                text += "  " + std::string(name) + ForTerminal(value) + "\n";
            }
        };
        text += (text.empty() ? "" : "\n");
        text += Paint("Camera " + std::to_string(camera.index), Colour::Bold, coloured) + "\n";
        line("serial number  ", std::to_string(camera.serialNumber));
        if (HasSerialText(camera)) {
            line("serial text    ", camera.serialText);
        }
        line("guid           ", FormatGuid(camera.guid));
        line("bus            ", BusName(camera.interfaceType));
        line("attached to    ", camera.location);
        if (camera.speed != 0) {
            line("speed          ", FormatSpeed(camera.speed));
        }
        line("at most        ", MostSpeed(camera));
        if (camera.IsGigE()) {
            line("address        ", FormatIp(camera.ip));
            line("MAC            ", FormatMac(camera.mac));
        }
        if (camera.control) {
            line("control        ", FormatControl(*camera.control));
        }
        line("vendor         ", camera.vendor);
        line("model          ", camera.model);
        line("name           ", camera.name);
    }
    return text + Remarks(listed, coloured);
}

std::string NothingFound(const CommandContext& context) {
    return "No cameras found on " + context.DescribeBuses("or") + ".\n\n" +
           "Check that each camera has power and that its cable is plugged in at both ends.\n" +
           (context.UsesBus("gige") ? DescribeSearch(context) : "") +
           "`nimbrel doctor` finds out what keeps cameras from being seen.\n";
}

}  // namespace Nimbrel2::Tool
