"""The error family as callers catch it, and exceptions crossing the core."""

import errno
import os
import pickle

import pytest

import tidewright.auth
import tidewright.sync as sync


def test_family_shape():
    expected = {
        "SyncError": Exception,
        "PermanentDownloadError": sync.SyncError,
        "SyncUnavailableError": sync.SyncError,
        "ManifestSupersededError": sync.SyncError,
        "DiskSpaceError": sync.SyncError,
        "IntegrityError": sync.SyncError,
        "EraError": sync.SyncError,
        "ManifestError": sync.SyncError,
        "StateError": Exception,
        "FeatureRotationStateError": sync.StateError,
    }
    for name, base in expected.items():
        assert issubclass(getattr(sync, name), base), name
    assert issubclass(sync.SyncUnavailableError, ConnectionError)
    assert not issubclass(sync.StateError, sync.SyncError)


def test_permanent_download_error_fields():
    err = sync.PermanentDownloadError("Download failed for a: HTTP 404", file_path="a", status="404")
    assert (str(err), err.file_path, err.status) == ("Download failed for a: HTTP 404", "a", 404)
    assert sync.PermanentDownloadError("m", status="x").status is None
    assert sync.PermanentDownloadError("m").file_path is None


@pytest.mark.parametrize("message", ["Insufficient disk space: need 10 bytes, have 5 bytes available",
                                     "Insufficient disk space while writing a.arrow: No space left on device"])
def test_disk_space_error_is_also_the_os_error_of_a_full_disk(message):
    err = sync.DiskSpaceError(message)
    assert (str(err), err.args, err.errno, err.strerror) == (message, (message,), errno.ENOSPC,
                                                              os.strerror(errno.ENOSPC))
    for handler in (OSError, sync.SyncError):
        with pytest.raises(handler):
            raise err
    copy = pickle.loads(pickle.dumps(err))
    assert (type(copy), str(copy), copy.errno) == (sync.DiskSpaceError, message, errno.ENOSPC)


def test_unavailable_error_message_and_typed_details():
    err = sync.SyncUnavailableError("", 3)
    assert (err.url, err.endpoint) == ("<unknown>", "<unknown>")
    assert str(err) == "Tidewright data sync unavailable after 3 attempt(s). endpoint=<unknown> url=<unknown>"
    assert err.typed_details is False

    err = sync.SyncUnavailableError(
        "http://h:1/data/manifest?x=1", 2, [503, 503], ["URLError"], server_error_code="maintenance",
        dependency="db", retryable=False, recovery="retry_with_backoff", reason="down")
    assert str(err) == (
        "Tidewright data sync unavailable after 2 attempt(s). endpoint=/data/manifest "
        "url=http://h:1/data/manifest?x=1 statuses=[503, 503] failures=['URLError'] server_error=maintenance "
        "dependency=db retryable=False recovery=retry_with_backoff reason=down")
    assert err.typed_details is True
    assert sync._sync_unavailable_has_typed_details(err)
    # Only dependency, retryable and recovery make the details typed by default.
    assert sync.SyncUnavailableError("u", 1, server_error_code="x", reason="y").typed_details is False
    assert "retryable" not in str(sync.SyncUnavailableError("u", 1, retryable=None))
    clone = pickle.loads(pickle.dumps(err))
    assert (type(clone), str(clone), clone.statuses) == (sync.SyncUnavailableError, str(err), [503, 503])


def test_a_callback_exception_reaches_the_caller_unchanged(tmp_path, monkeypatch):
    import tidewright._transport_security as security

    class Refused(Exception):
        pass

    raised = Refused("no bearer over this URL")

    def refuse(url):
        raise raised

    monkeypatch.setattr(security, "validate_bearer_transport_url", refuse)
    with pytest.raises(Refused) as info:
        sync.SyncManager(str(tmp_path), "http://127.0.0.1:1", get_token=lambda: "t")
    assert info.value is raised


# The command line maps these codes to exit statuses: the most specific class
# decides, and the standard classes a sibling raises are classified too.
@pytest.mark.parametrize("exc, code", [
    (sync.FeatureRotationStateError("x"), "state"),
    (sync.SyncUnavailableError("", 1), "unavailable"),
    (sync.PermanentDownloadError("x", status=404), "permanent_download"),
    (sync.EraError("x"), "era"),
    (sync.SyncError("x"), "sync"),
    (tidewright.auth.AuthError("x"), "auth"),
    (OSError(errno.ENOSPC, "full"), "disk_space"),
    (ConnectionResetError(), "network"),
    (PermissionError(errno.EACCES, "no"), "file_system"),
    (KeyboardInterrupt(), "cancelled"),
    (RuntimeError("x"), "other"),
])
def test_error_code_of_an_exception(exc, code):
    assert sync._error_code(exc) == code
