"""Reply bodies of the simulator: the plausible default element of each
endpoint's reply and the reply specs of the control protocol (README.md)."""
import calendar
import datetime
import json
import time

TIME_FORMAT = "%Y-%m-%dT%H:%M:%SZ"
HTML_ERROR_PAGE = ("<html><head><title>500 Internal Server Error</title></head>"
                   "<body><h1>Internal Server Error</h1></body></html>\n")


def sas_time(offset_seconds=0.0):
    now = datetime.datetime.now(datetime.timezone.utc)
    return (now + datetime.timedelta(seconds=offset_seconds)).strftime(TIME_FORMAT)


def expand_times(value):
    """Replaces every {"$time": N} with the UTC time text N seconds from now."""
    if isinstance(value, dict):
        if set(value) == {"$time"}:
            return sas_time(float(value["$time"]))
        return {k: expand_times(v) for k, v in value.items()}
    if isinstance(value, list):
        return [expand_times(v) for v in value]
    return value


def _number(value):
    return int(value) if float(value).is_integer() else value


def default_element(endpoint, request, state):
    """The plausible success element of <endpoint>Response for one request object."""
    req = request if isinstance(request, dict) else {}
    opts = state.options
    element = {}
    if endpoint == "registration":
        serial = req.get("cbsdSerialNumber") or "unknown"
        element["cbsdId"] = f"sim/{req.get('fccId', 'fcc')}/{serial}"
    else:
        element["cbsdId"] = req.get("cbsdId", "")
    if endpoint == "spectrumInquiry":
        ranges = [r for r in req.get("inquiredSpectrum", []) if isinstance(r, dict)]
        if not ranges:
            ranges = [{"lowFrequency": 3550000000, "highFrequency": 3700000000}]
        element["availableChannel"] = [
            {"frequencyRange": {"lowFrequency": r.get("lowFrequency"),
                                "highFrequency": r.get("highFrequency")},
             "channelType": "GAA", "ruleApplied": "FCC_PART_96", "maxEirp": _number(opts.max_eirp)}
            for r in ranges]
    elif endpoint == "grant":
        element["grantId"] = state.next_id("grant-")
        element["grantExpireTime"] = sas_time(opts.grant_seconds)
        element["heartbeatInterval"] = opts.heartbeat_interval
        element["channelType"] = "GAA"
    elif endpoint == "heartbeat":
        element["grantId"] = req.get("grantId", "")
        element["transmitExpireTime"] = sas_time(opts.transmit_seconds)
        element["heartbeatInterval"] = opts.heartbeat_interval
    elif endpoint == "relinquishment":
        element["grantId"] = req.get("grantId", "")
    element["response"] = {"responseCode": 0}
    return element


def build_body(endpoint, request_json, spec, state):
    """Reply body text for a reply spec (see README.md)."""
    if "body" in spec:
        return spec["body"]
    if spec.get("html_error"):
        return HTML_ERROR_PAGE
    if "json" in spec:
        return json.dumps(expand_times(spec["json"]), indent=2)
    requests = []
    if isinstance(request_json, dict):
        requests = request_json.get(f"{endpoint}Request")
    if not isinstance(requests, list) or not requests:
        requests = [{}]
    elements = [default_element(endpoint, r, state) for r in requests]
    first = elements[0]
    if "responseCode" in spec:
        first["response"]["responseCode"] = spec["responseCode"]
    if "responseData" in spec:
        first["response"]["responseData"] = spec["responseData"]
    if spec.get("responseCode", 0) != 0 and not spec.get("keep_fields"):
        # A refusal carries only the ids and the response object.
        first = {k: v for k, v in first.items() if k in ("cbsdId", "grantId", "response")}
        elements[0] = first
    first.update(expand_times(spec.get("set", {})))
    for name in spec.get("remove", []):
        first.pop(name, None)
    elements.extend(expand_times(spec.get("append_elements", [])))
    return json.dumps({f"{endpoint}Response": elements}, indent=2)


def transmit_expire_of(body):
    """Seconds since the epoch of the first heartbeat success's
    transmitExpireTime in a reply body, or None when it holds none."""
    try:
        elements = json.loads(body).get("heartbeatResponse")
    except (ValueError, AttributeError):
        return None
    for element in elements if isinstance(elements, list) else []:
        if not isinstance(element, dict):
            continue
        response = element.get("response")
        code = response.get("responseCode") if isinstance(response, dict) else None
        if type(code) is not int or code != 0:
            continue
        try:
            moment = time.strptime(element.get("transmitExpireTime"), TIME_FORMAT)
        except (TypeError, ValueError):
            return None
        return calendar.timegm(moment)
    return None
