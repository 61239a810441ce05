"""Reference data service for tests, demos and benchmarks (standard library only).

    from tools.dataservice import DataService
    with DataService(seed=1, features=8) as svc:
        print(svc.url, svc.token)

Command line: ``python -m tools.dataservice --port 8765 --seed 1 --features 16``.
"""

from .content import Era, EraLayout
from .server import DataService, Fault, RequestRecord, error_body, make_test_certificates, parse_range

__all__ = ["DataService", "Era", "EraLayout", "Fault", "RequestRecord", "error_body", "make_test_certificates",
           "parse_range"]
