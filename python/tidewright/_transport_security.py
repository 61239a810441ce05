"""Which URLs may receive a bearer token.

:func:`validate_bearer_transport_url` is called by the sync engine before
every request (and for every manifest ``base_url``). A token must never be
sent in clear text over the network, so plain ``http`` is accepted only for
loopback hosts, which is what local test and development services use.
"""

from __future__ import annotations

import ipaddress
from urllib.parse import urlsplit

__all__ = ["validate_bearer_transport_url", "is_loopback_host"]

_LOCALHOST_NAMES = frozenset({"localhost", "localhost."})


def is_loopback_host(host: str | None) -> bool:
    """True for ``localhost``, 127.0.0.0/8 and ``::1`` (also IPv4-mapped)."""
    if not host:
        return False
    host = host.strip().lower()
    if host in _LOCALHOST_NAMES:
        return True
    try:
        address = ipaddress.ip_address(host.split("%", 1)[0])
    except ValueError:
        return False
    mapped = getattr(address, "ipv4_mapped", None)
    if mapped is not None:
        address = mapped
    return address.is_loopback


def validate_bearer_transport_url(url) -> str:
    """Return ``url`` stripped of surrounding blanks if a bearer token may be sent to it.

    Raises :class:`ValueError` when the URL is empty, has no scheme or no
    host, uses a scheme other than ``http``/``https``, or is plain ``http``
    to a host that is not loopback.
    """
    text = "" if url is None else str(url).strip()
    if not text:
        raise ValueError("bearer transport URL is empty")
    try:
        parts = urlsplit(text)
        host = parts.hostname
        parts.port  # noqa: B018 - raises ValueError for a malformed port
    except ValueError as exc:
        raise ValueError(f"bearer transport URL is malformed: {text!r} ({exc})") from None
    scheme = parts.scheme.lower()
    if not scheme or not parts.netloc or not host:
        raise ValueError(f"bearer transport URL must be absolute (scheme and host): {text!r}")
    if scheme == "https":
        return text
    if scheme != "http":
        raise ValueError(f"bearer transport URL must use https or http, got {scheme!r}: {text!r}")
    if not is_loopback_host(host):
        raise ValueError(
            f"refusing to send a bearer token over plain http to non-loopback host {host!r}; use https: {text!r}"
        )
    return text


# The engine answers the URLs this default surely accepts natively while it
# is in place (a replacement is always called).
validate_bearer_transport_url.__tidewright_native__ = "validate_bearer_transport_url"
