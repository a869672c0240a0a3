/* A C host of the records library as a host developer meets it: a grey
 * image compressed to WSQ inside an ISO/IEC 19794-4:2011 record and inside
 * an ANSI/NIST-ITL transaction, both read back and described. */
#include <stdio.h>
#include <string.h>

#include <tavk05/records.h>

#define WIDTH 160
#define HEIGHT 120

static int Check(int nStatus, const char* pWhat)
{
    if (nStatus != TAVK05_REC_OK) {
        fprintf(stderr, "records host: %s: %s\n", pWhat, Tavk05RecordsStatusText(nStatus));
    }
    return nStatus == TAVK05_REC_OK;
}

int main(void)
{
    static unsigned char pixels[WIDTH * HEIGHT];
    Tavk05RecFinger finger;
    Tavk05RecImage image;
    Tavk05NistHeader header;
    Tavk05NistFinger records[2];
    Tavk05NistTransaction transaction;
    Tavk05RecDescription description;
    unsigned char* pIso = NULL;
    unsigned char* pNist = NULL;
    size_t nIso = 0, nNist = 0;
    int x, y, nVersion = 0;

    /* Ridges: dark and light stripes, slanted. */
    for (y = 0; y < HEIGHT; ++y) {
        for (x = 0; x < WIDTH; ++x) {
            pixels[y * WIDTH + x] = (unsigned char)(((x + y / 2) / 4) % 2 ? 220 : 30);
        }
    }
    memset(&finger, 0, sizeof finger);
    finger.nFingerPosition = 1;
    finger.nImpression = TAVK05_REC_LIVE_PLAIN;
    finger.nQuality = 60;
    finger.nCompression = TAVK05_REC_COMP_WSQ;
    finger.nPpi = 500;
    finger.nWidth = WIDTH;
    finger.nHeight = HEIGHT;
    finger.pPixels = pixels;

    if (!Check(Tavk05IsoWrite(2011, &finger, NULL, &pIso, &nIso), "ISO write")) return 1;
    if (!Check(Tavk05IsoRead(pIso, nIso, &nVersion, &image), "ISO read")) return 2;
    if (nVersion != 2011 || image.nWidth != WIDTH || image.nHeight != HEIGHT || image.pPixels == NULL) return 3;
    Tavk05RecImageRelease(&image);

    memset(&header, 0, sizeof header);
    strcpy(header.szTot, "CAR");
    strcpy(header.szDate, "20261126");
    strcpy(header.szDai, "DAI000000");
    strcpy(header.szOri, "ORI000000");
    strcpy(header.szTcn, "HOST-1");
    records[0].nRecordType = 14;
    records[0].finger = finger;
    records[1].nRecordType = 4;
    records[1].finger = finger;
    records[1].finger.nCompression = TAVK05_REC_COMP_NONE;
    if (!Check(Tavk05NistWrite(&header, records, 2, &pNist, &nNist), "ANSI/NIST write")) return 4;
    if (!Check(Tavk05NistRead(pNist, nNist, &transaction), "ANSI/NIST read")) return 5;
    if (transaction.nFingers != 2 || memcmp(transaction.pFingers[1].pPixels, pixels, sizeof pixels) != 0) return 6;
    Tavk05NistRelease(&transaction);

    if (!Check(Tavk05RecordsDescribe(pNist, nNist, &description), "describe")) return 7;
    if (description.nFormat != TAVK05_REC_FORMAT_NIST || description.nEntries != 3) return 8;
    printf("records host: libtavk05-records %s, ISO record %zu bytes, %s transaction %zu bytes, Type-14 at %.2f bpp\n",
           Tavk05RecordsVersion(), nIso, Tavk05RecordsFormatName(description.nFormat), nNist,
           description.pEntries[1].dBitsPerPixel);
    Tavk05RecDescriptionRelease(&description);
    Tavk05RecordsFree(pIso);
    Tavk05RecordsFree(pNist);
    return 0;
}
