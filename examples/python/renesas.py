"""Programs one page of a Renesas target's flash and checks it."""

import tarvik
from _args import target

host, index = target()
with tarvik.Renesas(host, index) as renesas:
    renesas.init()
    renesas.check_id(b"RENESAS")
    print("version:", renesas.get_version())
    renesas.erase_all()
    renesas.write_page(2, bytes(range(256)))
    print("page 2 sum %d (expected %d)" % (renesas.verify_check(2, 2), sum(range(256))))
    renesas.complete()
