// The debug console's entry. The bus process is started before the argument is looked at.
#include <cstdio>
#include <cstring>

#include "console/cli_cmd.h"

static constexpr char g_szProcName[] = "ks";
static constexpr uint32_t KS_PROC_ID = 257;

int main(int argc, char **argv) {
    if (BP_MwareInit(g_szProcName, KS_PROC_ID) != BP_OK) {
        printf("[kestrel error] fail to init program.\n");
        return 1;
    }
    if (argc > 1 && strcmp(argv[1], g_szTargetIware) != 0 && strcmp(argv[1], g_szTargetMware) != 0) {
        printf("%s@%d need proc name:%s or %s\n", "ks_main", __LINE__, g_szTargetMware, g_szTargetIware);
        return -1;
    }
    CLI_run(argc, argv);
    return 0;
}
