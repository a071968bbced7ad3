#pragma once
// The elementary neighbourhoods of square and cube morphology: which one a "Neighborhood"
// property value names, and the fold order of the fixed 3D ones. Host and plug-in both fold in
// these orders; the order decides which value wins among NaNs and signed zeros.
namespace lyn {

// The fixed 3x3 (3x3x3) neighbourhoods, and explicit offset lists folded in list order, plan by
// plan (Offsets2D) or across plans (Offsets3D).
enum class Neighbourhood { Cross4, Square8, Six, Eighteen, TwentySix, Offsets2D, Offsets3D };

// The "Neighborhood" property values that name a neighbourhood. 2D reads every value other than
// Cross4Value as the 8-connected square, 3D every value other than the first two as the cube.
enum NeighbourhoodValue : int { Cross4Value = 0, Square8Value = 1, SixValue = 0, EighteenValue = 1, TwentySixValue = 2 };

constexpr Neighbourhood neighbourhoodOf(int dimensions, int value) {
    if (dimensions == 2) return value == Cross4Value ? Neighbourhood::Cross4 : Neighbourhood::Square8;
    if (value == SixValue) return Neighbourhood::Six;
    if (value == EighteenValue) return Neighbourhood::Eighteen;
    return Neighbourhood::TwentySix;
}

inline const char* neighbourhoodName(Neighbourhood n) {
    switch (n) {
    case Neighbourhood::Cross4: return "4-connected";
    case Neighbourhood::Square8: return "8-connected";
    case Neighbourhood::Six: return "6-connected";
    case Neighbourhood::Eighteen: return "18-connected";
    case Neighbourhood::TwentySix: return "26-connected";
    case Neighbourhood::Offsets2D: return "2D offsets";
    case Neighbourhood::Offsets3D: return "3D offsets";
    }
    return "?";
}

// (plan, row, column) offsets in fold order. Six: back, up, left, centre, right, down, front.
constexpr int kOffsets6[7][3] = {{-1, 0, 0}, {0, -1, 0}, {0, 0, -1}, {0, 0, 0}, {0, 0, 1}, {0, 1, 0}, {1, 0, 0}};
// Eighteen: the cross of plan z - 1, plan z's 3 x 3 square row by row, the cross of plan z + 1.
constexpr int kOffsets18[19][3] = {{-1, -1, 0}, {-1, 0, -1}, {-1, 0, 0}, {-1, 0, 1}, {-1, 1, 0},
                                   {0, -1, -1}, {0, -1, 0},  {0, -1, 1}, {0, 0, -1}, {0, 0, 0},
                                   {0, 0, 1},   {0, 1, -1},  {0, 1, 0},  {0, 1, 1},  {1, -1, 0},
                                   {1, 0, -1},  {1, 0, 0},   {1, 0, 1},  {1, 1, 0}};

} // namespace lyn
