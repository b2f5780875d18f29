// SPDX-License-Identifier: Apache-2.0
// Columns of camera tables. Main thread only; no lock.
#include "tools/nimbrel/CameraColumns.h"

#include <algorithm>
#include <cctype>

#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/GigECameras.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/Locations.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

template <class Value>
int Compare(const Value& a, const Value& b) {
    if (a < b) {
        return -1;
    }
    return b < a ? 1 : 0;
}

template <auto member>
int CompareMember(const Camera& a, const Camera& b) {
    return Compare(a.*member, b.*member);
}

std::string ControlText(const Camera& camera) { return camera.control ? FormatControl(*camera.control) : ""; }

constexpr Details NoDetails{};
constexpr Details Location{true, false, false};
constexpr Details SpeedDetails{false, true, false};
constexpr Details ControlDetails{false, false, true};

constexpr auto AlignLeft = Table::Align::Left;
constexpr auto AlignRight = Table::Align::Right;
constexpr auto FullWidth = Table::Width::Full;
constexpr auto FlexibleWidth = Table::Width::Flexible;

std::vector<std::string> NamesOfColumns() {
    std::vector<std::string> names;
    for (const CameraColumn& column : CameraColumns()) {
        names.emplace_back(column.name);
    }
    return names;
}

const CameraColumn& FindColumn(const std::string& option, const std::string& name) {
    for (const CameraColumn& column : CameraColumns()) {
        if (name == column.name) {
            return column;
        }
    }
    const std::string meant = DidYouMean(name, NamesOfColumns());
    throw CommandError(option + ": \"" + name + "\" is not a column" +
                           (meant.empty() ? "; there are " + Enumerate(NamesOfColumns()) : meant),
                       ExitUsage);
}

char InLowerCase(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

bool EqualInEitherCase(char a, char b) { return InLowerCase(a) == InLowerCase(b); }

bool Holds(const std::string& text, const std::string& part) {
    return std::search(text.begin(), text.end(), part.begin(), part.end(), EqualInEitherCase) != text.end();
}

bool IsInEitherCase(const std::string& a, const std::string& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), EqualInEitherCase);
}

void ReadControl(std::vector<Camera>* cameras) {
    Platform::GigEDiagnosis diagnosis;
    if (Platform::DiagnoseGigE(true, &diagnosis) != HAL_OK) {
        return;
    }
    for (Camera& camera : *cameras) {
        for (const Platform::CameraDiagnosis& heard : diagnosis.cameras) {
            const GigECamera other = FromRecord(heard.record);
            const bool same =
                heard.listed && IsSame(other.mac, camera.mac) && PackIPAddress(other.ip) == PackIPAddress(camera.ip);
            if (camera.IsGigE() && same) {
                camera.control = heard.control.state;
            }
        }
    }
}

}  // namespace

const std::vector<CameraColumn>& CameraColumns() {
    static const std::vector<CameraColumn> columns{
        {"index", "#", AlignRight, FullWidth, [](const Camera& c) { return std::to_string(c.index); },
         CompareMember<&Camera::index>, NoDetails},
        {"serial", "SERIAL", AlignRight, FullWidth, [](const Camera& c) { return std::to_string(c.serialNumber); },
         CompareMember<&Camera::serialNumber>, NoDetails},
        {"serial_text", "SERIAL TEXT", AlignLeft, FlexibleWidth, [](const Camera& c) { return c.serialText; },
         CompareMember<&Camera::serialText>, NoDetails},
        {"guid", "GUID", AlignLeft, FullWidth, [](const Camera& c) { return FormatGuid(c.guid); },
         [](const Camera& a, const Camera& b) { return FormatGuid(a.guid).compare(FormatGuid(b.guid)); }, NoDetails},
        {"interface", "BUS", AlignLeft, FullWidth, [](const Camera& c) { return FormatInterface(c.interfaceType); },
         CompareMember<&Camera::interfaceType>, NoDetails},
        {"ip", "ADDRESS", AlignLeft, FullWidth, [](const Camera& c) { return c.IsGigE() ? FormatIp(c.ip) : ""; },
         [](const Camera& a, const Camera& b) { return Compare(PackIPAddress(a.ip), PackIPAddress(b.ip)); }, NoDetails},
        {"mac", "MAC", AlignLeft, FullWidth, [](const Camera& c) { return c.IsGigE() ? FormatMac(c.mac) : ""; },
         [](const Camera& a, const Camera& b) { return FormatMac(a.mac).compare(FormatMac(b.mac)); }, NoDetails},
        {"vendor", "VENDOR", AlignLeft, FlexibleWidth, [](const Camera& c) { return c.vendor; },
         CompareMember<&Camera::vendor>, NoDetails},
        {"model", "MODEL", AlignLeft, FlexibleWidth, [](const Camera& c) { return c.model; },
         CompareMember<&Camera::model>, NoDetails},
        {"name", "NAME", AlignLeft, FlexibleWidth, [](const Camera& c) { return c.name; }, CompareMember<&Camera::name>,
         NoDetails},
        {"speed", "SPEED", AlignRight, FullWidth,
         [](const Camera& c) { return c.speed == 0 ? "" : FormatSpeed(c.speed); }, CompareMember<&Camera::speed>,
         SpeedDetails},
        {"port", "PORT", AlignRight, FullWidth, [](const Camera& c) { return c.port ? std::to_string(*c.port) : ""; },
         CompareMember<&Camera::port>, Location},
        {"location", "LOCATION", AlignLeft, FlexibleWidth, [](const Camera& c) { return c.location; },
         CompareMember<&Camera::location>, Location},
        {"control", "CONTROL", AlignLeft, FullWidth, ControlText,
         [](const Camera& a, const Camera& b) { return ControlText(a).compare(ControlText(b)); }, ControlDetails},
    };
    return columns;
}

std::vector<const CameraColumn*> ParseColumns(const std::string& option, const std::string& text) {
    std::vector<const CameraColumn*> columns;
    for (const std::string& name : SplitAt(text, ',')) {
        columns.push_back(&FindColumn(option, name));
    }
    return columns;
}

std::vector<SortKey> ParseSortKeys(const std::string& option, const std::string& text) {
    std::vector<SortKey> keys;
    for (const std::string& name : SplitAt(text, ',')) {
        const bool descending = !name.empty() && name.front() == '-';
        keys.push_back({&FindColumn(option, descending ? name.substr(1) : name), descending});
    }
    return keys;
}

void SortCameras(const std::vector<SortKey>& keys, std::vector<Camera>* cameras) {
    std::stable_sort(cameras->begin(), cameras->end(), [&keys](const Camera& a, const Camera& b) {
        for (const SortKey& key : keys) {
            const int order = key.column->compare(a, b);
            if (order != 0) {
                return key.descending ? order > 0 : order < 0;
            }
        }
        return false;
    });
}

bool CameraFilter::Passes(const Camera& camera) const {
    const auto any = [](const std::vector<std::string>& words, const auto& fits) {
        return words.empty() || std::any_of(words.begin(), words.end(), fits);
    };
    const std::string number = std::to_string(camera.serialNumber);
    return any(vendors, [&](const std::string& word) { return Holds(camera.vendor, word); }) &&
           any(models, [&](const std::string& word) { return Holds(camera.model, word); }) &&
           any(serials,
               [&](const std::string& word) { return word == number || IsInEitherCase(word, camera.serialText); });
}

Details operator|(const Details& a, const Details& b) {
    return {a.locations || b.locations, a.speeds || b.speeds, a.control || b.control};
}

void ReadDetails(BusMaster& busMaster, const Details& wanted, std::vector<Camera>* cameras) {
    for (Camera& camera : *cameras) {
        unsigned int speed = 0;
        if (wanted.speeds && busMaster.GetLinkSpeed(camera.guid, &speed) == ERROR_OK) {
            camera.speed = speed;
        }
    }
    if (wanted.locations) {
        AddLocations(busMaster, cameras);
    }
    if (wanted.control) {
        ReadControl(cameras);
    }
}

bool HasSerialText(const Camera& camera) {
    return !camera.serialText.empty() && camera.serialText != std::to_string(camera.serialNumber);
}

}  // namespace Nimbrel2::Tool
