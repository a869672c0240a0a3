// Calibration model of the TAVK05 optics: one smooth description of how the
// sensor sees the glass, from which the build generates the compiled-in
// coordinate tables and the shading table, and with which the virtual scanner
// places a pattern in raw sensor geometry so that it leaves the driver's
// geometry correction undistorted.
//
// Coordinates are continuous, with integer values at pixel centres. "Raw"
// positions are in the grey image at sensor resolution (the input of the
// geometry correction); "final" positions are in the finished 600 x 600
// image, after the correction's left-right mirror.
//
// The model uses only +, -, *, / and integer operations, so that the tables
// come out bit-identical on every ABI.
#ifndef TAVK05_CALIBMODEL_H
#define TAVK05_CALIBMODEL_H

#include <cstddef>
#include <cstdint>

namespace tavk05cal {

// Size of the finished image.
const int kFinalSize = 600;

// Marker written by CGeometry::FillRawToFinal for raw pixels that do not
// reach the final image.
const float kOutside = -1.0e9f;

// ---------------------------------------------------------------------------
// Coordinate tables (nearest-sample correction).

enum TableId {
    TABLE_MAIN = 0,  // usXtable / usYtable, serving a 1280 x 676 grey image
    TABLE_1103 = 1   // usXtable1103 / usYtable1103, serving 1288 x 876
};

struct TableLayout {
    int nRows;        // table rows (stride is always nCols)
    int nCols;        // entries per table row
    int nRegionRow;   // first table row of the 600 x 600 read region
    int nRegionCol;   // first table column of the read region
    int nImageWidth;  // grey image the table serves
    int nImageHeight;
    int nLeadingZero;   // rows 0 .. nLeadingZero-1 hold zeros
    int nTrailingZero;  // rows nTrailingZero .. nRows-1 hold zeros
};

const TableLayout& GetTableLayout(TableId eTable);

// Smooth source position for a position of a table's read region:
//   Y(u, v) = P(u) - T(u) * w / 2
//   X(u, v) = C(u) + H(u) * w + G(u) * (1 - w * w)
// with u the region row (0..599), w = 2 v / 599 - 1 from the region column v,
// P a quartic (row start, end, middle and the steps at both ends), T a tilt
// that fades towards the bottom, C +- H the left and right edges (straight
// lines in the source, a keystone) and G a gentle bow of the columns.
class CTableModel {
public:
    explicit CTableModel(TableId eTable);

    TableId GetTable() const { return m_eTable; }
    const TableLayout& Layout() const { return *m_pLayout; }

    // Continuous source column and row for region position (dU, dV); defined
    // (by extension of the same polynomials) outside 0..599 as well.
    void Source(double dU, double dV, double* pdX, double* pdY) const;

    // Inverse of Source: the region position that sees source (dX, dY).
    // On entry (*pdU, *pdV) is a starting point for the search (a value
    // outside -300..900 means none). False when no position within that
    // margin around the region sees the source position.
    bool Region(double dX, double dY, double* pdU, double* pdV) const;

    // The stored entry at table position (nRow, nCol): the rounded model
    // value clamped into the image, or zero in the zero rows.
    void Entry(int nRow, int nCol, unsigned short* pusX, unsigned short* pusY) const;

    // Every entry, row-major with stride nCols; both arrays nRows * nCols.
    void Fill(unsigned short* pusX, unsigned short* pusY) const;

private:
    double Row(double dU) const;       // P(u)
    double RowSlope(double dU) const;  // P'(u)
    void Columns(double dU, double* pdC, double* pdH, double* pdG) const;
    void ColumnSlopes(double dU, double* pdC, double* pdH, double* pdG) const;

    TableId m_eTable;
    const TableLayout* m_pLayout;
    double m_dRow[5];    // P(u) = sum m_dRow[k] u^k
    double m_dTilt;      // T(u) = m_dTilt * (1 - u / 599)
    double m_dLeft[2];   // left edge: m_dLeft[0] + m_dLeft[1] * q(u)
    double m_dRight[2];  // right edge, the same way
    double m_dBow[3];    // G(u) = sum m_dBow[k] u^k
    double m_dRowSpan;   // P(599) - P(0), for q(u) = (P(u) - P(0)) / span
};

// ---------------------------------------------------------------------------
// Interpolating correction (models 7 and 8): the geometry that the modify
// tables encode. Canvas positions are (row i, column cc) of the 660 x 660
// (or 650 x 650) canvas; source positions are in the source the tables are
// built for (1288 x 876, or the 1700 x 1300 padded copy).

enum ModifyId {
    MODIFY_STD = 0,  // 660 x 660 canvas from a 1288 x 876 source
    MODIFY_EX = 1    // 650 x 650 canvas from the 1700 x 1300 padded source
};

struct ModifyLayout {
    int nCanvas;    // canvas width and height
    int nSrcWidth;  // source the table indexes
    int nSrcHeight;
    int nSrcCentre;  // source centre column (right half starts there)
    int nCropRow;    // canvas row of final row 0
    int nCropCol;    // canvas column of (pre-mirror) column 0
    int nPadRow;     // rows the raw frame is moved down in the padded copy
    int nPadCol;     // raw column of padded column 0
};

const ModifyLayout& GetModifyLayout(ModifyId eTable);

// Row and column coefficients a(i) = k1 i + k0 and b(i) = m1 i + m0, rounded
// to single precision as the tables hold them.
float ModifyRowDivisor(ModifyId eTable, int nRow);
float ModifyColDivisor(ModifyId eTable, int nRow);

// Source position (table source coordinates) of canvas position (dRow, dCol);
// the row may be fractional (the row divisor is interpolated), the column
// side follows the canvas centre: the right half samples from the centre
// column, the mirrored left half from the column before it.
void ModifyCanvasToSource(ModifyId eTable, double dRow, double dCol, double* pdSx, double* pdSy);

// Inverse of ModifyCanvasToSource; continuous across the one-column seam at
// the canvas centre.
void ModifySourceToCanvas(ModifyId eTable, double dSx, double dSy, double* pdRow, double* pdCol);

// ---------------------------------------------------------------------------
// The five correction paths of the driver.

enum Path {
    PATH_TABLE_1280 = 1,  // CorrectImage, usXtable/usYtable, 1280 x 676 (types 3, 4, 0)
    PATH_TABLE_1288 = 2,  // CorrectImage, 1103 pair, 1288 x 876 (types 5, 6, older firmware)
    PATH_TABLE_1800 = 3,  // CorrectImage, 1103 pair on 1800 x 1280 (types 5, 6, firmware >= 0x3000)
    PATH_CALC_1288 = 4,   // CorrectImageCalc, 1288 x 876 (types 7, 8, older firmware)
    PATH_CALC_1800 = 5    // CorrectImageCalcEx, 1800 x 1280 (types 7, 8, firmware >= 0x3000)
};

// The path the driver takes for a device type and firmware version.
Path PathForDevice(int nDeviceType, unsigned int nFirmware);

// Grey-image geometry of a path (the mosaic size of the frame).
void RawSize(Path ePath, int* pnWidth, int* pnHeight);

// Maps between raw grey-image positions and final-image positions of one
// path. Cheap to construct (solves a few small linear systems).
class CGeometry {
public:
    explicit CGeometry(Path ePath);

    Path GetPath() const { return m_ePath; }
    int RawWidth() const { return m_nRawWidth; }
    int RawHeight() const { return m_nRawHeight; }

    // Final (dFx, dFy) -> raw (*pdSx, *pdSy). For the table paths this is the
    // smooth model, which the stored tables round to the nearest sample.
    void FinalToRaw(double dFx, double dFy, double* pdSx, double* pdSy) const;

    // Raw (dSx, dSy) -> final (*pdFx, *pdFy). False when the raw position
    // maps outside the final image (beyond half a pixel from its border).
    bool RawToFinal(double dSx, double dSy, double* pdFx, double* pdFy) const;

    // Final position of every raw pixel, row-major over RawWidth() x
    // RawHeight(), kOutside in both arrays where RawToFinal is false; the
    // positions agree with RawToFinal within 1e-4 pixels. Meant to be run
    // once per path and cached (20 to 50 ms for a frame).
    void FillRawToFinal(float* pfFx, float* pfFy) const;

private:
    Path m_ePath;
    int m_nRawWidth;
    int m_nRawHeight;
    CTableModel m_Table;  // used by the table paths
};

// ---------------------------------------------------------------------------
// Shading table pModBuf: value added to final pixel (nX, nY) for models 5, 6.

unsigned char ShadingAt(int nX, int nY);
void FillShading(unsigned char* pbyShading);  // 600 x 600 bytes

// ---------------------------------------------------------------------------
// 64-bit FNV-1a over a byte range, continuing from nHash.
uint64_t Fnv1a(const void* pData, size_t nBytes, uint64_t nHash = 1469598103934665603ULL);

}  // namespace tavk05cal

#endif
