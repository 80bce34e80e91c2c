# SPDX-License-Identifier: Apache-2.0
"""The earth's main field from the World Magnetic Model 2025 (WMM2025).

    f = quelta.geomag.field(48.85, 2.35, 35.0, "2026-03-01")
    f["declination_deg"], f["strength_gauss"], f["dip_deg"]

The model's coefficients are a work of the United States Government, not
subject to copyright protection in the United States (17 U.S.C. 403).
"""

import datetime as _dt

from . import _quelta


def decimal_year(date):
    """A date (datetime.date or datetime, "YYYY-MM-DD", or a number taken as a
    decimal year) as a decimal year: 2025-01-01 is 2025.0."""
    if isinstance(date, (int, float)):
        return float(date)
    if isinstance(date, str):
        try:
            date = _dt.date.fromisoformat(date)
        except ValueError:
            raise ValueError("date must be YYYY-MM-DD, got %r" % date) from None
    if isinstance(date, _dt.datetime):
        date = date.date()
    if isinstance(date, _dt.date):
        return _quelta.decimal_year(date.year, date.month, date.day)
    raise TypeError("date must be a datetime.date, 'YYYY-MM-DD' or a decimal year")


def field(lat, lon, height_m=0.0, date=None):
    """The model's field at a place (geodetic latitude and longitude in
    degrees, height above the WGS-84 ellipsoid in metres) and date (today
    when None).

    Returns a dict: north_nt, east_nt, down_nt, horizontal_nt, total_nt,
    inclination_deg, declination_deg (east positive), grid_variation_deg,
    their yearly rates (*_per_year), strength_gauss and dip_deg (what
    Compass(expected_field=...) takes), decimal_year, flags and warnings
    (texts: caution or blackout zone near the magnetic poles, date or height
    outside the model's range). Raises ValueError for invalid input."""
    if date is None:
        date = _dt.date.today()
    return _quelta.geomag_field(float(lat), float(lon), float(height_m), decimal_year(date))


def model():
    """(name, valid from, valid until), in decimal years."""
    return _quelta.geomag_model()
