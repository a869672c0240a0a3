// Image processor of the TAVK05 driver: geometry correction, colour-to-grey
// conversion, latent detection, quality, finger state, rolled composition
// and enhancement. One instance lives inside every sensor object.
#ifndef TAVK05_ISPROC_H
#define TAVK05_ISPROC_H

#include "isensor.h"

// One output pixel pair of a modify-table row: the pixel j to the right of
// the output's centre column and its mirror j to the left.
struct tagModifyEntry {
    float fSrcRow;              // source row coordinate of the output row
    float fSrcCol;              // source column, measured from the centre column
    int nSrcRow;                // floor(fSrcRow)
    int nSrcCol;                // floor(fSrcCol)
    unsigned int nDstRight;     // output index of row i, column W/2 + j
    unsigned int nDstLeft;      // output index of row i, column W/2 - j
    unsigned int nSrcIndex[4];  // top-left, top-right, bottom-right, bottom-left
    float fWeight[4];           // bilinear weights in the same order
};

// Calibration data compiled into the library.
extern TAVK05_API const unsigned short usXtable[422400];      // 640 x 660
extern TAVK05_API const unsigned short usYtable[422400];      // 640 x 660
extern TAVK05_API const unsigned short usXtable1103[435600];  // 660 x 660
extern TAVK05_API const unsigned short usYtable1103[435600];  // 660 x 660
extern TAVK05_API const unsigned char pModBuf[360000];        // 600 x 600 shading

enum { IMG_WIDTH = 600, IMG_HEIGHT = 600, IMG_PIXELS = 360000, MODIFY_SIZE = 660, MODIFY_SIZE_EX = 650 };

class TAVK05_API CImageProc {
public:
    int m_bRollStarted;            // a rolled composition is under way
    int m_nRollCenter;             // finger position of the last composed frame
    int m_nRollLeft;               // left finger edge of the last accepted frame
    int m_nRollRight;              // right finger edge of the last accepted frame
    int m_nRollDirection;          // 1 toward higher columns, 2 toward lower
    int m_bContrastTable;          // m_ucContrastTable is in force
    unsigned char* m_pBackground;  // 600 x 600 background frame
    unsigned char m_ucContrastTable[256];
    int m_nDeviceType;                   // device type of the open scanner
    int m_nFingerWinX;                   // left column of the 400 x 450 finger window
    int m_nFingerWinY;                   // top row of the finger window
    tagModifyEntry** m_ppModifyTable;    // 660 rows for a 1288 x 876 source
    tagModifyEntry** m_ppModifyTableEx;  // 650 rows for a 1700 x 1300 source

    CImageProc();
    ~CImageProc();

    void InitModifyTable();
    void InitModifyTableEx();

    // Frame quality.
    int CheckImageQuality(int nWidth, int nHeight, unsigned char* pImage);
    int CheckImageQuality2(int nWidth, int nHeight, unsigned char* pImage);
    int GetStdDeviation(int nWidth, int nHeight, unsigned char* pImage, int* pMean);

    // Latent print detection on a 1214 x 616 grey latent frame: 1 latent, 0 live.
    unsigned char CheckLatent1(unsigned char* pImage, unsigned int nWidth);
    unsigned char CheckLatent2(unsigned char* pImage);
    unsigned char CheckLatentForRVM71(unsigned char* pImage);

    // Finger state estimation.
    int GetLocalVariance(int nWidth, int nHeight, unsigned char* pImage, int* pMean);
    int EstimateFingerState(int nWidth, int nHeight, unsigned char* pImage);
    int AutoSetPara(unsigned char* pImage);

    // Colour-filter mosaic to grey.
    void RGBtoGRAY(unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight);
    void RGBtoGRAY2(unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight);

    // Geometry correction into a 600 x 600 image, mirrored left to right.
    int RotateRightImage(unsigned char* pImage, int nWidth, int nHeight);
    int CorrectImage(unsigned char* pSrc, unsigned long nSrcWidth, unsigned long nSrcHeight, unsigned char* pDst,
                     unsigned long nDstWidth, unsigned long nDstHeight, unsigned long nOffsetX, unsigned long nOffsetY);
    int CorrectImageCalc(unsigned char* pSrc, unsigned long nSrcWidth, unsigned long nSrcHeight, unsigned char* pDst,
                         unsigned long nDstWidth, unsigned long nDstHeight, unsigned long nOffsetX,
                         unsigned long nOffsetY);
    int CorrectImageCalcEx(unsigned char* pSrc, unsigned long nSrcWidth, unsigned long nSrcHeight, unsigned char* pDst,
                           unsigned long nDstWidth, unsigned long nDstHeight, unsigned long nOffsetX,
                           unsigned long nOffsetY);

    // Rolled composition: 0 go on, 1 complete, 2 roll too fast.
    int ImageComposition(unsigned char* pFrame, unsigned char* pComposite, long nSize, int nFrame, float fContrast);

    // Whole-image enhancement.
    void Histoequal(unsigned char* pImage, int nWidth, int nHeight);
    void Final(unsigned char* pImage);

private:
    CImageProc(const CImageProc&);
    CImageProc& operator=(const CImageProc&);

    // What only the library's own code uses: the memory of the modify-table
    // rows. Owned, made by the constructor.
    struct CPrivate;
    CPrivate* m_pPrivate;
};

#endif
