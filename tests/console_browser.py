#!/usr/bin/env python3
"""The console in a real browser: headless Chromium, driven through
chromium-driver, against the demo as a process. It calls
demo.EchoService.Echo through the page and checks the reply, makes a failing
call and checks its error text, and fails on anything the browser's console
logged (a script error, a request that failed, the favicon's 404).

Usage: console_browser.py DEMO_SERVER [SCREENSHOT.png]
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support import expected_conditions
    from selenium.webdriver.support.ui import WebDriverWait
except ImportError:
    # Debian's python3-selenium is the system interpreter's; another python3
    # first on PATH (a pyenv, a venv) does not see it.
    if os.path.realpath(sys.executable) != os.path.realpath("/usr/bin/python3") and \
            os.path.exists("/usr/bin/python3"):
        os.execv("/usr/bin/python3", ["/usr/bin/python3"] + sys.argv)
    raise

DEMO = sys.argv[1]
SCREENSHOT = sys.argv[2] if len(sys.argv) > 2 else None
WAIT_SECONDS = 60  # a bound for a loaded machine, not an expectation


def fail(text):
    print("console_browser: FAIL: " + text)
    sys.exit(1)


def find_program(*names):
    for name in names:
        path = shutil.which(name) or (os.path.exists("/usr/bin/" + name) and "/usr/bin/" + name)
        if path:
            return path
    fail("none of %s is installed (scripts/install-deps installs chromium and "
         "chromium-driver)" % (names,))


def browser(profile):
    options = webdriver.ChromeOptions()
    options.binary_location = find_program("chromium", "chromium-browser")
    # Headless, and quiet: the machine's network is closed, so nothing may
    # reach out to the world (updates, sync, QUIC probes).
    for flag in ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                 "--no-first-run", "--disable-background-networking",
                 "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage",
                 "--window-size=1280,800", "--user-data-dir=" + profile]:
        options.add_argument(flag)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    service = Service(executable_path=find_program("chromedriver"))
    return webdriver.Chrome(service=service, options=options)


def main():
    demo = subprocess.Popen([DEMO, "--port", "0"], stdout=subprocess.PIPE, text=True)
    profile = tempfile.mkdtemp(prefix="console_browser.")
    driver = None
    try:
        line = demo.stdout.readline()
        match = re.search(r"(http://127\.0\.0\.1:\d+/)", line)
        if not match:
            fail("the demo did not start: %r" % line)
        url = match.group(1)
        driver = browser(profile)
        wait = WebDriverWait(driver, WAIT_SECONDS)
        driver.get(url)
        # The services come from reflection, the demo's among them.
        echo = wait.until(expected_conditions.element_to_be_clickable(
            (By.CSS_SELECTOR, '#services [data-method="demo.EchoService.Echo"]')))
        services = driver.find_element(By.ID, "services").text
        for name in ["demo.EchoService", "vantu.relay.Reflection"]:
            if name not in services:
                fail("the services list lacks %s: %r" % (name, services))
        links = driver.find_element(By.ID, "links").text
        for path in ["/hello", "/echo", "/metrics", "/healthz"]:
            if path not in links:
                fail("the page does not list %s: %r" % (path, links))

        # Echo: the template comes from the descriptor; the reply is shown.
        echo.click()
        method = driver.find_element(By.ID, "method").text
        if method != "demo.EchoService.Echo":
            fail("the chosen method reads %r" % method)
        request = driver.find_element(By.ID, "request")
        template = request.get_attribute("value")
        if re.sub(r"\s", "", template) != '{"text":""}':
            fail("the request template is %r" % template)
        request.clear()
        request.send_keys('{"text": "hello from the browser"}')
        driver.find_element(By.ID, "call").click()
        wait.until(lambda d: "hello from the browser" in d.find_element(By.ID, "reply").text)
        reply = driver.find_element(By.ID, "reply")
        if reply.get_attribute("class") != "ok":
            fail("the Echo reply is marked %r: %r" % (reply.get_attribute("class"), reply.text))
        wait.until(lambda d: " ms" in d.find_element(By.ID, "status").text)
        if not driver.find_element(By.ID, "status").text.startswith("ok in "):
            fail("the Echo status reads %r" % driver.find_element(By.ID, "status").text)

        # Fail: the service's error text is shown as the outcome.
        driver.find_element(By.CSS_SELECTOR,
                            '#services [data-method="demo.EchoService.Fail"]').click()
        request = driver.find_element(By.ID, "request")
        if re.sub(r"\s", "", request.get_attribute("value")) != '{"error":""}':
            fail("the Fail template is %r" % request.get_attribute("value"))
        request.clear()
        request.send_keys('{"error": "refused on purpose"}')
        driver.find_element(By.ID, "call").click()
        wait.until(lambda d: "refused on purpose" in d.find_element(By.ID, "reply").text)
        reply = driver.find_element(By.ID, "reply")
        if reply.get_attribute("class") != "failed" or \
                reply.text != "Rpc-Error: refused on purpose":
            fail("the failed call shows %r as %r" % (reply.text, reply.get_attribute("class")))
        wait.until(lambda d: d.find_element(By.ID, "status").text.startswith("failed in "))

        # The live figures: streamed from /events, the calls above among them.
        wait.until(lambda d: re.match(r"^\d+(\.\d)?$",
                                      d.find_element(By.ID, "figure-rpcs").text))
        source = driver.find_element(By.ID, "figures").get_attribute("data-source")
        if source != "events":
            fail("the figures came from %r, not the /events stream" % source)
        connections = driver.find_element(By.ID, "figure-connections").text
        if not connections.isdigit() or int(connections) < 1:
            fail("open connections read %r" % connections)

        if SCREENSHOT:  # for the README
            driver.find_element(By.CSS_SELECTOR,
                                '#services [data-method="demo.EchoService.Echo"]').click()
            request = driver.find_element(By.ID, "request")
            request.clear()
            request.send_keys('{\n  "text": "hello from the console"\n}')
            driver.find_element(By.ID, "call").click()
            wait.until(lambda d: "hello from the console" in d.find_element(By.ID, "reply").text)
            driver.find_element(By.CSS_SELECTOR, "details summary").click()
            driver.save_screenshot(SCREENSHOT)

        logged = [entry for entry in driver.get_log("browser")
                  if entry.get("level") in ("SEVERE", "WARNING")]
        if logged:
            fail("the browser's console logged: %r" % logged)
        print("console_browser: OK")
    finally:
        if driver is not None:
            driver.quit()
        demo.kill()
        demo.wait()
        shutil.rmtree(profile, ignore_errors=True)


main()
