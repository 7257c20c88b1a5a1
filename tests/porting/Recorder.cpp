// A program as somebody brings it: written against Windows-style interfaces years ago, and compiled here as
// it is.
//
// A device samples its channels on a worker thread that is told by messages what to do; the main thread reads
// a configuration, posts the jobs, waits for handles, and prints a report. The report must come out as it
// always did.
#include <stdio.h>
#include <stdlib.h>

#include <Windows/Windows.h>

#define WM_SAMPLE (WM_USER + 1)
#define WM_RENAME (WM_USER + 2)
#define WM_FLUSH (WM_APP + 1)

// ---------------------------------------------------------------------------------------------------------
// Objects in lists

class CObject {
public:
    virtual ~CObject() {}
};

class CChannel : public CObject {
public:
    CChannel(LPCTSTR lpszName, UINT nUnit) : m_strName(lpszName), m_nUnit(nUnit), m_dwSamples(0), m_lSum(0) {}

    void AddSample(LONG lValue) {
        m_lSum += lValue;
        m_dwSamples++;
    }

    XString Describe() const {
        XString str;
        str.Format("%-8s unit %u", (LPCTSTR)m_strName, m_nUnit);
        if (m_dwSamples == 0) {
            str += " (no samples)";
        } else {
            XString strMean;
            strMean.Format(", %lu samples, mean %.2f", m_dwSamples, (double)m_lSum / m_dwSamples);
            str += strMean;
        }
        return str;
    }

    XString m_strName;
    UINT m_nUnit;
    DWORD m_dwSamples;
    LONG m_lSum;
};

// ---------------------------------------------------------------------------------------------------------
// Configuration: text in, VARIANTs by name

struct SETTING {
    XString strName;
    VARIANT varValue;
};

class CConfiguration {
public:
    CConfiguration() {}

    ~CConfiguration() {
        for (int i = 0; i < m_settings.GetSize(); i++) {
            SETTING* pSetting = (SETTING*)m_settings[i];
            VariantClear(&pSetting->varValue);
            delete pSetting;
        }
        m_settings.RemoveAll();
    }

    // "name = value ; comment"
    BOOL ReadLine(LPCTSTR lpszLine) {
        XString strLine(lpszLine);
        int nComment = strLine.Find(';');
        if (nComment >= 0)
            strLine = strLine.Left(nComment);
        int nEqual = strLine.IsEmpty() ? -1 : strLine.Find('=');
        if (nEqual <= 0)
            return FALSE;

        XString strName = strLine.Left(nEqual);
        strName.TrimRight(" \t");
        strName.TrimLeft(" \t");
        strName.MakeLower();
        XString strValue = strLine.Mid(nEqual + 1);
        if (!strValue.IsEmpty()) {
            strValue.TrimLeft();
            if (!strValue.IsEmpty())
                strValue.TrimRight();
        }

        SETTING* pSetting = Lookup(strName);
        if (pSetting == NULL) {
            pSetting = new SETTING;
            pSetting->strName = strName;
            VariantInit(&pSetting->varValue);
            m_settings.Add(pSetting);
        }
        VariantClear(&pSetting->varValue);
        pSetting->varValue.vt = VT_BSTR;
        pSetting->varValue.bstrVal = strValue.AllocSysString();
        return TRUE;
    }

    HRESULT Get(LPCTSTR lpszName, VARTYPE vt, VARIANT* pValue) {
        SETTING* pSetting = Lookup(lpszName);
        if (pSetting == NULL)
            return E_FAIL;
        HRESULT hr = VariantCopy(pValue, &pSetting->varValue);
        if (SUCCEEDED(hr))
            hr = VariantChangeType(pValue, vt);
        return hr;
    }

    LONG GetLong(LPCTSTR lpszName, LONG lDefault) {
        VARIANT var;
        VariantInit(&var);
        if (FAILED(Get(lpszName, VT_I4, &var)))
            return lDefault;
        return V_I4(&var);
    }

    BOOL GetBool(LPCTSTR lpszName) {
        VARIANT var;
        VariantInit(&var);
        return SUCCEEDED(Get(lpszName, VT_BOOL, &var)) && var.boolVal == VARIANT_TRUE;
    }

    double GetReal(LPCTSTR lpszName) {
        _variant_t var;
        return SUCCEEDED(Get(lpszName, VT_R8, &var)) ? var.dblVal : 0.0;
    }

    BSTR GetText(LPCTSTR lpszName) {
        SETTING* pSetting = Lookup(lpszName);
        return pSetting != NULL ? SysAllocString(pSetting->varValue.bstrVal) : NULL;
    }

    int GetCount() const { return m_settings.GetSize(); }

private:
    SETTING* Lookup(LPCTSTR lpszName) {
        for (int i = 0; i <= m_settings.GetUpperBound(); i++) {
            SETTING* pSetting = (SETTING*)m_settings.GetAt(i);
            if (pSetting->strName == lpszName)
                return pSetting;
        }
        return NULL;
    }

    CPtrArray m_settings;
};

// ---------------------------------------------------------------------------------------------------------
// The worker

class CRecorder {
public:
    CRecorder() : m_dwSampled(0) {
        m_hReady = CreateEvent(NULL, TRUE, FALSE, NULL);
        m_hFlushed = CreateEvent(NULL, TRUE, FALSE, NULL); // was auto-reset: such an event wakes nobody here
        m_hMutex = CreateMutex(NULL, FALSE, NULL);
    }

    ~CRecorder() {
        POSITION pos = m_channels.GetHeadPosition();
        while (pos != NULL)
            delete m_channels.GetNext(pos);
        m_channels.RemoveAll();
        CloseHandle(m_hMutex);
        CloseHandle(m_hFlushed);
        CloseHandle(m_hReady);
    }

    void AddChannel(LPCTSTR lpszName, UINT nUnit) { m_channels.AddTail(new CChannel(lpszName, nUnit)); }

    void Start() {
        m_pThread = AfxBeginThread(ThreadProc, this, THREAD_PRIORITY_NORMAL, 0, CREATE_SUSPENDED);
        m_pThread->ResumeThread();
        WaitForSingleObject(m_hReady, INFINITE);
    }

    BOOL Post(UINT nMessage, WPARAM wParam, LPARAM lParam) {
        return PostThreadMessage(m_pThread->GetThreadID(), nMessage, wParam, lParam);
    }

    BOOL Flush() {
        ResetEvent(m_hFlushed);
        Post(WM_FLUSH, 0, NULL);
        return WaitForSingleObject(m_hFlushed, 30000) == WAIT_OBJECT_0;
    }

    void Stop() {
        Post(WM_QUIT, 0, NULL);
        WaitForSingleObject(m_pThread->m_hThread, INFINITE);
        delete m_pThread;
        m_pThread = NULL;
    }

    void Report(CStringArray& lines) {
        WaitForSingleObject(m_hMutex, INFINITE);
        for (POSITION pos = m_channels.GetHeadPosition(); pos != NULL;)
            lines.Add(((CChannel*)m_channels.GetNext(pos))->Describe());
        XString strTotal;
        strTotal.Format("%lu samples in all", m_dwSampled);
        lines.Add(strTotal);
        ReleaseMutex(m_hMutex);
    }

private:
    static UINT ThreadProc(LPVOID pParam) {
        ((CRecorder*)pParam)->Run();
        return 0;
    }

    void Run() {
        SetEvent(m_hReady);
        MSG msg;
        while (GetMessage(&msg, NULL, 0, 0)) {
            if (msg.message == WM_QUIT)
                break;
            switch (msg.message) {
            case WM_SAMPLE:
                OnSample((UINT)msg.wParam, (LONG)(size_t)msg.lParam);
                break;
            case WM_RENAME:
                OnRename((UINT)msg.wParam, (BSTR)msg.lParam);
                break;
            case WM_FLUSH:
                SetEvent(m_hFlushed);
                break;
            }
        }
    }

    CChannel* Channel(UINT nUnit) {
        for (POSITION pos = m_channels.GetHeadPosition(); pos != NULL;) {
            CChannel* pChannel = (CChannel*)m_channels.GetNext(pos);
            if (pChannel->m_nUnit == nUnit)
                return pChannel;
        }
        return NULL;
    }

    void OnSample(UINT nUnit, LONG lValue) {
        WaitForSingleObject(m_hMutex, INFINITE);
        CChannel* pChannel = Channel(nUnit);
        if (pChannel != NULL) {
            pChannel->AddSample(lValue);
            m_dwSampled++;
        }
        ReleaseMutex(m_hMutex);
    }

    // The message brings a BSTR, which is ours from here on.
    void OnRename(UINT nUnit, BSTR bstrName) {
        WaitForSingleObject(m_hMutex, INFINITE);
        CChannel* pChannel = Channel(nUnit);
        if (pChannel != NULL)
            pChannel->m_strName = bstrName;
        ReleaseMutex(m_hMutex);
        SysFreeString(bstrName);
    }

    CObList m_channels;
    DWORD m_dwSampled;
    HANDLE m_hReady;
    HANDLE m_hFlushed;
    HANDLE m_hMutex;
    CWinThread* m_pThread;
};

// ---------------------------------------------------------------------------------------------------------
// Reports

static void PrintLines(const CStringArray& lines) {
    for (int i = 0; i < lines.GetSize(); i++) {
        XString str = lines[i];
        printf("  %d: %s\n", i + 1, (LPCTSTR)str);
    }
}

static XString Headline(const XString& strTitle) {
    XString str = "[ " + strTitle + " ]";
    str.MakeUpper();
    return str + ' ' + XString('=', 40 - str.GetLength());
}

static void ExportXml(const CStringArray& lines) {
    CMemFile file(64);
    for (int i = 0; i < lines.GetSize(); i++) {
        file.WriteF("<line no=\"%d\">", i + 1);
        file.WriteStrEntities(lines[i]);
        file.WriteF("</line>");
    }
    XString strXml((LPCSTR)file.GetAsStr());
    int nReplaced = strXml.Replace("</line>", "</line>\n");
    printf("%s%d lines, %u bytes\n", (LPCTSTR)strXml, nReplaced, file.GetLength());
}

static void EditTexts() {
    XString strPath = "C:\\data\\run 7\\samples.dat";
    int nSlash = strPath.ReverseFind('\\');
    XString strFile = strPath.Mid(nSlash + 1);
    XString strFolder = strPath.Left(nSlash);
    printf("folder '%s', file '%s', extension '%s'\n", (LPCTSTR)strFolder, (LPCTSTR)strFile,
           (LPCTSTR)strFile.Right(strFile.GetLength() - strFile.Find('.') - 1));

    XString strCopy = strPath;
    strCopy.Replace('\\', '/');
    strCopy.Remove(':');
    strCopy.Delete(0, 2);
    printf("'%s' made of '%s'\n", (LPCTSTR)strCopy, (LPCTSTR)strPath);

    XString strNumber = strPath.SpanExcluding("0123456789");
    strNumber = strPath.Mid(strNumber.GetLength()).SpanIncluding("0123456789");
    printf("run number %d\n", atoi(strNumber));

    char szTime[16];
    sprintf(szTime, "%02d:%02d", 9, 5);
    XString strLine = XString("started at ") + szTime;
    strLine.SetAt(0, 'S');
    strLine.Insert(0, "> ");
    printf("%s%s\n", (LPCTSTR)strLine, strLine < XString("A") ? "" : " (sorts last)");

    LPTSTR lpsz = strLine.GetBuffer(80);
    sprintf(lpsz, "buffer of %d characters", 80);
    strLine.ReleaseBuffer();
    printf("%s: %d\n", (LPCTSTR)strLine, strLine.GetLength());
}

static void UseBstrs(CConfiguration& configuration) {
    BSTR bstr = configuration.GetText("title");
    printf("title '%s' of %u characters, a BSTR: %d\n", bstr, SysStringLen(bstr), IsBSTR(bstr, true));
    _bstr_t bstrTitle(bstr, false);
    bstrTitle += " (copy)";
    XString strTitle = (LPCTSTR)bstrTitle;
    if (bstrTitle == strTitle && bstrTitle != "")
        printf("%s, %d\n", (LPCTSTR)strTitle, bstrTitle.length());

    _variant_t var((short)-1);
    _bstr_t bstrNumber;
    bstrNumber = var;
    printf("VARIANT of type %d reads '%s'\n", var.vt, (LPCTSTR)bstrNumber);
    var.Clear();
}

static void Filter(CStringArray& lines, LPCTSTR lpszWord) {
    for (int i = lines.GetUpperBound(); i >= 0; i--)
        if (lines.GetAt(i).Find(lpszWord) < 0)
            lines.RemoveAt(i);
}

int main() {
    CConfiguration configuration;
    static LPCTSTR aszLines[] = {
        "Title   = Boiler <3> & \"Pump\" ; what the operator sees",
        "samples = 12",
        "offset  = -2.5",
        "enabled = true",
        "; only a comment",
        "quiet   = 0",
        "this is no setting",
        "samples = 20 per channel",
    };
    int nRead = 0;
    for (size_t i = 0; i < sizeof(aszLines) / sizeof(aszLines[0]); i++)
        nRead += configuration.ReadLine(aszLines[i]);
    printf("%d lines read, %d settings\n", nRead, configuration.GetCount());
    LONG lSamples = configuration.GetLong("samples", 1);
    double dOffset = configuration.GetReal("offset");
    printf("samples %ld, offset %.2f, enabled %d, quiet %d, missing %ld\n", lSamples, dOffset,
           configuration.GetBool("enabled"), configuration.GetBool("quiet"),
           configuration.GetLong("missing", -7));

    CRecorder recorder;
    recorder.AddChannel("feed", 1);
    recorder.AddChannel("return", 2);
    recorder.AddChannel("spare", 3);
    recorder.Start();
    recorder.Post(WM_RENAME, 2, SysAllocString("back <2>"));
    for (LONG l = 0; l < lSamples; l++) {
        recorder.Post(WM_SAMPLE, 1, (LPARAM)(size_t)(100 + l));
        recorder.Post(WM_SAMPLE, 2, (LPARAM)(size_t)(200 + 2 * l));
        recorder.Post(WM_SAMPLE, 9, (LPARAM)(size_t)l);
    }
    printf("flushed: %d\n", recorder.Flush());

    CStringArray lines;
    recorder.Report(lines);
    printf("%s\n", (LPCTSTR)Headline("all channels"));
    PrintLines(lines);
    ExportXml(lines);
    Filter(lines, "mean");
    printf("%s\n", (LPCTSTR)Headline("with samples"));
    PrintLines(lines);
    recorder.Stop();

    printf("%s\n", (LPCTSTR)Headline("texts"));
    EditTexts();
    UseBstrs(configuration);
    return 0;
}
