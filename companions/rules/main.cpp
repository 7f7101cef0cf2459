#include "companions/rules/RunRules.h"

int main(int argc, char** argv) {
    return kelto::companion::rules::RunRules(argc, argv);
}
