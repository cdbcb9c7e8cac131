// Merit functions as the report's host keeps them: operands by the code
// names of the engine's catalogue, and the default merit function that a
// designer would start from.
#pragma once

#include <string>
#include <vector>

#include "tools/lens_file.hpp"

namespace lensfile {

// The name of an operand code ("TRANSVERSE_Y"), or nullptr for a code
// without one (the gaps of the catalogue and codes above 103).
const char* operand_code_name(unsigned code);

// The code of a name, or of a decimal number; false when neither.
bool operand_code_from_name(const std::string& name, unsigned& code);

// An operand record with no references, no group and weight 1.
MeritOperandDesc blank_operand(unsigned code);

// The default merit function of a lens: transverse x and y (codes 70 and
// 71) on a hexapolar pupil of `rings` rings at every field and wavelength,
// the centroid taken per field; the focal length held at its present
// value; lower bounds on the centre and edge thickness of glass (1 mm) and
// of the air between the elements (0.1 mm centre, 0 edge), where the lens
// has glass or such air (none behind a mirror).
std::vector<MeritOperandDesc> default_merit_function(const Lens& lens, int rings = 2);

}  // namespace lensfile
