// SPDX-License-Identifier: Apache-2.0
// The columns that tables of cameras may have, and the filters and orders by them. Pure but for ReadDetails.
#ifndef NIMBREL2_TOOLS_NIMBREL_CAMERACOLUMNS_H
#define NIMBREL2_TOOLS_NIMBREL_CAMERACOLUMNS_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/Table.h"

namespace Nimbrel2::Tool {

/// What a listing does not hold and must be read from buses and cameras.
struct Details {
    bool locations = false;
    bool speeds = false;   ///< GigE: two register reads per camera.
    bool control = false;  ///< GigE: a few register reads per camera.
};

struct CameraColumn {
    const char* name;    ///< As JSON names it: "serial_text".
    const char* header;  ///< "SERIAL TEXT"
    Table::Align align;
    Table::Width width;
    std::string (*text)(const Camera& camera);
    /// Less than zero, zero or more: which camera comes first.
    int (*compare)(const Camera& a, const Camera& b);
    Details needs;
};

/// All of them, in the order in which help lists them.
const std::vector<CameraColumn>& CameraColumns();

/// "serial,model": columns by name. @throws CommandError (wrong usage) that names the unknown one.
std::vector<const CameraColumn*> ParseColumns(const std::string& option, const std::string& text);

/// "vendor,-serial": columns by name, a minus sign in front of one that is to descend.
struct SortKey {
    const CameraColumn* column = nullptr;
    bool descending = false;
};
std::vector<SortKey> ParseSortKeys(const std::string& option, const std::string& text);

/// Equal cameras keep their order.
void SortCameras(const std::vector<SortKey>& keys, std::vector<Camera>* cameras);

/// Which cameras to show. Each kind that is not empty must be met by one of its words.
struct CameraFilter {
    std::vector<std::string> vendors;  ///< parts of the text, in either case
    std::vector<std::string> models;
    std::vector<std::string> serials;  ///< the whole number, or the whole text in either case

    bool IsEmpty() const { return vendors.empty() && models.empty() && serials.empty(); }
    bool Passes(const Camera& camera) const;
};

Details operator|(const Details& a, const Details& b);

/// Reads what is wanted of the cameras. What cannot be read stays unknown.
void ReadDetails(BusMaster& busMaster, const Details& wanted, std::vector<Camera>* cameras);

/// Whether the serial text says more than the serial number.
bool HasSerialText(const Camera& camera);

}  // namespace Nimbrel2::Tool

#endif
