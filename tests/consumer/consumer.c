/* A program outside the tree, built against the installed packages as a
 * device's own process would be: it makes a block, writes a frame into its
 * ring and reads it back, and parses an XML text. Exit 0 when all of it holds.
 * Run it in a private IPC namespace: the block is real System V memory. */
#include <stdio.h>
#include <string.h>

#include "molkxmlprocessor.h"
#include "sharedmem.h"

#define KEY 0x6d6f6c6b

static int fail(const char *what) {
    fprintf(stderr, "consumer: %s failed\n", what);
    return 1;
}

static int write_frame(SharedMemBlockInfo *info, const char *payload, uint32_t size) {
    SharedMemHandle *writer = NULL;
    uint8_t *place = NULL;
    if (SharedMem_InitialByTag(info, &writer, "video", 16) != 0) return fail("writer open");
    int rc = SharedMem_QueryAutoRewindWriteBuffer(writer, &place, size);
    if (rc == 0) {
        memcpy(place, payload, size);
        SharedMemWriteInfo frame = {place, 0, size, 0};  /* a key frame, stamped by the library */
        rc = SharedMem_UpdateWritedBuffer(writer, &frame);
    }
    SharedMem_Release(&writer);
    return rc == 0 ? 0 : fail("write");
}

static int read_frame(SharedMemBlockInfo *info, const char *payload, uint32_t size) {
    SharedMemHandle *reader = NULL;
    SharedMemBufClient *client = NULL;
    SharedMemReadRequest request = {SHM_READ_IN_PLACE | SHM_READ_FROM_OLDEST, 0, 0, 0, 0, 0, 0, 0};
    uint8_t *data = NULL;
    uint32_t got = 0;
    if (SharedMem_InitialByTag(info, &reader, "video", 1) != 0) return fail("reader open");
    int rc = SharedMem_QueryReadBuffer(reader, &client, &data, &got, &request);
    /* A ring stores frames in steps of 4 bytes. */
    int same = rc == 0 && got == ((size + 3u) & ~3u) && memcmp(data, payload, size) == 0;
    if (rc == 0) SharedMem_ReleaseReadBuffer(client);
    SharedMem_FreeBufClient(&client);
    SharedMem_Release(&reader);
    return same ? 0 : fail("reading the frame back");
}

static int frame_round_trip(void) {
    static const char payload[] = "one encoded frame";
    char total[] = "4M", ring[] = "2M-video";
    char *descs[] = {ring};
    SharedMemBlockConfig config = {SHM_MEMORY_SYSV, 0, 0, 4096, 0};
    SharedMemBlockInfo *info = NULL;
    if (SharedMemBlock_Allocate(KEY, total, 1, &config, descs) != 0) return fail("allocate");
    int rc = SharedMemBlock_Attach(&info, 0, KEY) != 0 ? fail("attach")
             : write_frame(info, payload, sizeof payload) != 0 ? 1
             : read_frame(info, payload, sizeof payload);
    if (info != NULL) SharedMemBlock_Detach(&info);
    SharedMemBlock_Delete(KEY);
    return rc;
}

static int parse_xml(void) {
    char text[] = "<config><camera id=\"2\"><name>door</name></camera></config>";
    MolkXmlInitParam param = {0, 16};
    MolkXmlNavi *xml = NULL;
    char id[8] = "", name[16] = "";
    if (MOLK_XML_Initial(&xml, &param) != 0) return fail("XML handle");
    int ok = MOLK_XML_SetBuffer(xml, text, sizeof text, (int)strlen(text)) == 0 &&
             MOLK_XML_FindElem(xml, "config") && MOLK_XML_FindChildElem(xml, "camera") &&
             XML_GetChildAttrib(xml, "id", id, sizeof id) == 0 && MOLK_XML_IntoElem(xml) &&
             MOLK_XML_FindChildElem(xml, "name") &&
             MOLK_XML_GetChildData(xml, name, sizeof name) == 0;
    MOLK_XML_Release(&xml);
    return ok && strcmp(id, "2") == 0 && strcmp(name, "door") == 0 ? 0 : fail("XML parse");
}

int main(void) {
    if (frame_round_trip() != 0 || parse_xml() != 0) return 1;
    printf("consumer: frame written and read back, XML parsed\n");
    return 0;
}
