// Model frame: checking a model block in every data mode, the absence rule
// of optional arguments, the time-varying block (partial, empty, in force),
// opening index tables, the compact list, copies and closing, for both frame
// variants.
#include <gtest/gtest.h>

#include <cstring>

#include "frame.h"
#include "test_util.h"

using namespace testutil;
using tessel::FrameVariant;

namespace {

struct Dims {
    int N = -1, m = -1, mN = -1, S = -1, mExtra = -1, n = -1;
    double **init = nullptr, **mean = nullptr;
    int tv = -1;
};

Dims check(FrameVariant v, Args &a, int i, int mode) {
    Dims d;
    d.tv = tessel::iZuCheckLgm(v, reinterpret_cast<ZuValue *>(a.data()), static_cast<int>(a.size()),
                               i, mode, &d.N, &d.m, &d.mN, &d.S, &d.mExtra, &d.n, &d.init, &d.mean);
    return d;
}

std::string check_error(FrameVariant v, Args &a, int i, int mode) {
    try {
        check(v, a, i, mode);
    } catch (const zu::Error &e) {
        return e.what();
    }
    return "";
}

// m = 2 states, N = 2 series: SysMat 4 x 2, VarMat 4 x 4.
Args model_args(Value data) {
    Args a;
    a.push_back(std::move(data));
    a.push_back(mat(4, 2, {1, 1, 0, 1, 1, 0, 0, 1}));
    a.push_back(mat(4, 4, {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}));
    return a;
}

const FrameVariant kBoth[] = {FrameVariant::Copying, FrameVariant::InPlace};

}  // namespace

TEST(ModelCheck, ReportsDimensionsForEveryDataMode) {
    for (FrameVariant v : kBoth) {
        Args a = model_args(Value::matrix(2, 7));
        Dims d = check(v, a, 0, 0);
        EXPECT_EQ(d.N, 2);
        EXPECT_EQ(d.m, 2);
        EXPECT_EQ(d.mN, 4);
        EXPECT_EQ(d.S, 2 + 3 + 4);  // N + N(N+1)/2 + mN
        EXPECT_EQ(d.n, 7);
        EXPECT_EQ(d.tv, 0);
        EXPECT_EQ(d.mExtra, v == FrameVariant::Copying ? 5 : 4);

        Args store = model_args(Value::matrix(9, 3));
        EXPECT_EQ(check(v, store, 0, 1).n, 3);
        Args dist = model_args(Value::matrix(4, 5));
        EXPECT_EQ(check(v, dist, 0, 2).n, 5);
        // Mode 3: (m+3 or m+2) x (n N); n is the column count divided by N.
        Args m3 = model_args(Value::matrix(v == FrameVariant::Copying ? 5 : 4, 6));
        EXPECT_EQ(check(v, m3, 0, 3).n, 3);
    }
    Args m4 = model_args(Value::matrix(6, 8));
    EXPECT_EQ(check(FrameVariant::Copying, m4, 0, 4).n, 4);
    // The in-place variant knows no mode 4: nothing about the data is checked.
    Args any = model_args(Value::matrix(1, 1));
    EXPECT_EQ(check(FrameVariant::InPlace, any, 0, 4).m, 2);
    // Modes outside 0..4 check nothing.
    EXPECT_EQ(check(FrameVariant::Copying, any, 0, 7).n, 1);
}

TEST(ModelCheck, RejectsWrongShapesWithHostErrors) {
    Args wrong_rows = model_args(Value::matrix(3, 7));
    EXPECT_NE(check_error(FrameVariant::Copying, wrong_rows, 0, 0).find("3 x 7"),
              std::string::npos);
    Args wrong_store = model_args(Value::matrix(8, 2));
    EXPECT_NE(check_error(FrameVariant::Copying, wrong_store, 0, 1), "");
    Args wrong_var = model_args(Value::matrix(2, 3));
    wrong_var[2] = mat(3, 3, {1, 0, 0, 0, 1, 0, 0, 0, 1});
    EXPECT_NE(check_error(FrameVariant::Copying, wrong_var, 0, 0), "");
    Args not_matrix = model_args(Value::matrix(2, 3));
    not_matrix[1] = Value::integer(3);
    try {
        check(FrameVariant::Copying, not_matrix, 0, 0);
        ADD_FAILURE() << "an integer SysMat was accepted";
    } catch (const zu::Error &e) {
        EXPECT_NE(e.number(), 0);
    }
    Args too_few;
    too_few.push_back(Value::matrix(1, 3));
    too_few.push_back(mat(2, 1, {1, 1}));
    EXPECT_EQ(check_error(FrameVariant::Copying, too_few, 0, 0),
              "Lgm(): at least 3 arguments required");
}

TEST(ModelCheck, SquareSysMatNamesTheDataArgument) {
    for (FrameVariant v : kBoth) {
        Args a;
        a.push_back(Value::integer(0));
        a.push_back(Value::integer(0));
        a.push_back(Value::matrix(1, 4));
        a.push_back(mat(2, 2, {1, 0, 0, 1}));
        a.push_back(mat(2, 2, {1, 0, 0, 1}));
        EXPECT_EQ(check_error(v, a, 2, 0),
                  "\nLgm(): number of rows or columns not correct in argument 2\n");
    }
}

TEST(ModelCheck, OptionalArgumentsFollowTheAbsenceRule) {
    Args base = model_args(Value::matrix(2, 5));
    // Not passed, empty, 1 x 1 zero and scalar zero are absent.
    for (Value absent :
         {Value::empty(), Value::matrix(1, 1), Value::integer(0), Value::real(0.0)}) {
        Args a = base;
        a.push_back(absent);
        a.push_back(absent);
        Dims d = check(FrameVariant::Copying, a, 0, 0);
        EXPECT_EQ(d.init, nullptr);
        EXPECT_EQ(d.mean, nullptr);
    }
    // A 1 x 1 NaN (or any nonzero 1 x 1) is present and fails its shape check.
    for (double x : {kNaN, 2.0}) {
        Args a = base;
        a.push_back(mat(1, 1, {x}));
        EXPECT_NE(check_error(FrameVariant::Copying, a, 0, 0), "");
    }
    // Present InitMat and MeanVec are reported.
    Args a = base;
    a.push_back(mat(3, 2, {-1, 0, 0, 2, 5, 6}));
    a.push_back(mat(4, 1, {1, 2, 3, 4}));
    Dims d = check(FrameVariant::Copying, a, 0, 0);
    ASSERT_NE(d.init, nullptr);
    ASSERT_NE(d.mean, nullptr);
    EXPECT_EQ(d.init[2][1], 6.0);
    EXPECT_EQ(d.mean[3][0], 4.0);
    Args bad_mean = base;
    bad_mean.push_back(Value::empty());
    bad_mean.push_back(mat(3, 1, {1, 2, 3}));
    EXPECT_NE(check_error(FrameVariant::Copying, bad_mean, 0, 0), "");
}

TEST(ModelCheck, PartialTimeVaryingBlockWarnsAndStaysFixed) {
    for (FrameVariant v : kBoth) {
        for (int extra = 1; extra <= 3; ++extra) {
            Args a = model_args(Value::matrix(2, 5));
            a.push_back(Value::empty());
            a.push_back(Value::empty());
            for (int k = 0; k < extra; ++k)
                a.push_back(mat(4, 2, {-1, -1, -1, -1, -1, -1, -1, -1}));
            MessageCapture cap;
            EXPECT_EQ(check(v, a, 0, 0).tv, 0);
            ASSERT_EQ(cap.messages.size(), 1u);
            EXPECT_EQ(cap.messages[0], "Lgm(): no time-varying state space model");
        }
    }
}

TEST(ModelCheckDeathTest, PartialBlockEndsTheProcessWhenMessagesAreOff) {
    Args a = model_args(Value::matrix(2, 5));
    for (int k = 0; k < 3; ++k) a.push_back(Value::empty());
    EXPECT_EXIT(
        {
            fLgmNoErrorMessage = 1;
            check(FrameVariant::Copying, a, 0, 0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(ModelCheck, InPlaceVariantWarnsEvenWhenMessagesAreOff) {
    Args a = model_args(Value::matrix(2, 5));
    for (int k = 0; k < 3; ++k) a.push_back(Value::empty());
    fLgmNoErrorMessage = 1;
    MessageCapture cap;
    const int tv = check(FrameVariant::InPlace, a, 0, 0).tv;
    fLgmNoErrorMessage = 0;
    EXPECT_EQ(tv, 0);
    EXPECT_EQ(cap.messages.size(), 1u);
}

TEST(ModelCheck, CompleteBlockWithoutTvDataRowsIsFixed) {
    Args a = model_args(Value::matrix(2, 5));
    a.push_back(Value::empty());
    a.push_back(Value::empty());
    a.push_back(mat(4, 2, {0, -1, -1, -1, -1, -1, -1, -1}));
    a.push_back(Value::empty());
    a.push_back(Value::empty());
    a.push_back(Value::matrix(0, 5));
    MessageCapture cap;
    EXPECT_EQ(check(FrameVariant::Copying, a, 0, 0).tv, 0);
    EXPECT_EQ(cap.messages.size(), 1u);
    fLgmNoErrorMessage = 1;
    cap.messages.clear();
    EXPECT_EQ(check(FrameVariant::Copying, a, 0, 0).tv, 0);  // silenced, no exit here
    fLgmNoErrorMessage = 0;
    EXPECT_TRUE(cap.messages.empty());
}

TEST(ModelCheck, TvDataColumnsAreCheckedOnlyWhenAnIndexIsGiven) {
    Args a = model_args(Value::matrix(2, 5));
    a.push_back(Value::empty());
    a.push_back(Value::empty());
    a.push_back(Value::empty());
    a.push_back(Value::empty());
    a.push_back(Value::empty());
    a.push_back(Value::matrix(2, 3));  // wrong column count, but no index given
    EXPECT_EQ(check(FrameVariant::Copying, a, 0, 0).tv, 1);
    a[7] = Value::matrix(4, 1);  // MeanIdx given: TvData needs n = 5 columns
    EXPECT_NE(check_error(FrameVariant::Copying, a, 0, 0), "");
    a[8] = Value::matrix(2, 5);
    EXPECT_EQ(check(FrameVariant::Copying, a, 0, 0).tv, 1);
    a[6] = mat(3, 3, {0, 0, 0, 0, 0, 0, 0, 0, 0});  // VarIdx of the wrong shape
    a[6].at(0, 0) = 1;
    EXPECT_NE(check_error(FrameVariant::Copying, a, 0, 0), "");
}

namespace {

// A model block with n = 4 and the given index matrices (row-major, -1 fixed).
struct TvFixture {
    Args a;
    int tv_rows;
    TvFixture(std::vector<double> sysidx, std::vector<double> varidx, std::vector<double> meanidx,
              int rows)
        : tv_rows(rows) {
        a = model_args(Value::matrix(2, 4));
        a.push_back(Value::empty());
        a.push_back(Value::empty());
        a.push_back(sysidx.empty() ? Value::empty() : mat(4, 2, sysidx));
        a.push_back(varidx.empty() ? Value::empty() : mat(4, 4, varidx));
        a.push_back(meanidx.empty() ? Value::empty() : mat(4, 1, meanidx));
        Value tv = Value::matrix(rows, 4);
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < 4; ++c) tv.at(r, c) = 100.0 * r + c;
        a.push_back(tv);
    }
    ZuValue *raw() { return reinterpret_cast<ZuValue *>(a.data()); }
};

const std::vector<double> kFixedVar(16, -1.0);

}  // namespace

TEST(ModelOpen, TruncatesIndexEntriesTowardsZero) {
    TvFixture f({2.9, -1, -1, -0.5, -1, -1, -1, -1}, {}, {}, 3);
    NoLeak guard;
    tessel::Model model;
    model.check(FrameVariant::Copying, f.raw(), static_cast<int>(f.a.size()), 0, 0);
    ASSERT_TRUE(model.time_varying);
    ASSERT_TRUE(model.open(true));
    EXPECT_EQ(model.sysidx[0][0], 2);
    EXPECT_EQ(model.sysidx[1][1], 0);  // -0.5 truncates to 0: time-varying, row 0
    EXPECT_EQ(model.sysidx[0][1], -1);
    ASSERT_EQ(model.list[0][0], 2);
    // Compact list in row-major order: (0,0) from row 2, then (1,1) from row 0.
    EXPECT_EQ(model.list[0][1], 0);
    EXPECT_EQ(model.list[1][1], 0);
    EXPECT_EQ(model.list[2][1], 2);
    EXPECT_EQ(model.list[0][2], 1);
    EXPECT_EQ(model.list[1][2], 1);
    EXPECT_EQ(model.list[2][2], 0);
    EXPECT_EQ(model.list[3][0], 0);
    EXPECT_EQ(model.list[6][0], 0);
    // The copy is a private matrix: writing the time-3 values leaves the caller's alone.
    ASSERT_NE(model.syscopy, nullptr);
    EXPECT_EQ(model.varcopy, nullptr);
    TVsystem(3, model.sys(), nullptr, nullptr, model.list, model.tvdata);
    EXPECT_EQ(model.sys()[0][0], 203.0);
    EXPECT_EQ(model.sys()[1][1], 3.0);
    EXPECT_EQ(f.a[1].at(0, 0), 1.0);
}

TEST(ModelOpen, TvDataMustCoverTheLargestIndex) {
    // Largest entry equal to the row count of TvData.
    TvFixture f({-1, -1, -1, -1, -1, -1, -1, -1}, {}, {-1, 3, -1, -1}, 3);
    NoLeak guard;
    {
        tessel::Model model;
        model.check(FrameVariant::Copying, f.raw(), static_cast<int>(f.a.size()), 0, 0);
        try {
            model.open();
            ADD_FAILURE() << "a too small TvData was accepted";
        } catch (const zu::Error &e) {
            EXPECT_STREQ(e.what(), "Lgm(): dimension of data matrix is not correct");
        }
    }
    {
        tessel::Model model;
        model.check(FrameVariant::InPlace, f.raw(), static_cast<int>(f.a.size()), 0, 0);
        EXPECT_FALSE(model.open());  // silently
    }
    TvFixture ok({-1, -1, -1, -1, -1, -1, -1, -1}, {}, {-1, 2, -1, -1}, 3);
    tessel::Model model;
    model.check(FrameVariant::Copying, ok.raw(), static_cast<int>(ok.a.size()), 0, 0);
    EXPECT_TRUE(model.open());
    EXPECT_EQ(model.meanidx[1], 2);
}

TEST(ModelOpen, AbsentTablesNeedOneTvDataRow) {
    // Only VarIdx given, all negative: an absent table counts as largest 0.
    TvFixture f({}, kFixedVar, {}, 1);
    NoLeak guard;
    tessel::Model model;
    model.check(FrameVariant::Copying, f.raw(), static_cast<int>(f.a.size()), 0, 0);
    EXPECT_TRUE(model.open(true));
    EXPECT_EQ(model.list[3][0], 0);
    EXPECT_NE(model.varcopy, nullptr);  // a VarIdx table exists, so VarMat is copied
    EXPECT_EQ(model.syscopy, nullptr);
}

TEST(ModelOpen, NoIndexMatrixDiffersBetweenVariants) {
    TvFixture f({}, {}, {}, 2);
    for (FrameVariant v : kBoth) {
        tessel::Model model;
        model.check(v, f.raw(), static_cast<int>(f.a.size()), 0, 0);
        ASSERT_TRUE(model.time_varying);
        ASSERT_TRUE(model.open());
        // The copying variant runs the dimension test and reports TvData.
        EXPECT_EQ(model.tvdata != nullptr, v == FrameVariant::Copying);
    }
}

TEST(ModelOpen, VarMatIsWrittenOnlyWhereMarked) {
    std::vector<double> varidx = kFixedVar;
    varidx[1] = 1;  // VarMat[0][1] only
    TvFixture f({}, varidx, {}, 2);
    tessel::Model model;
    model.check(FrameVariant::Copying, f.raw(), static_cast<int>(f.a.size()), 0, 0);
    ASSERT_TRUE(model.open(true));
    TVsystem(2, nullptr, model.var(), nullptr, model.list, model.tvdata);
    EXPECT_EQ(model.var()[0][1], 102.0);
    EXPECT_EQ(model.var()[1][0], 0.0);  // not mirrored
}

TEST(ModelOpen, InPlaceVariantMakesNoCopies) {
    TvFixture f({0, -1, -1, -1, -1, -1, -1, -1}, kFixedVar, {}, 2);
    tessel::Model model;
    model.check(FrameVariant::InPlace, f.raw(), static_cast<int>(f.a.size()), 0, 0);
    ASSERT_TRUE(model.open());
    EXPECT_EQ(model.syscopy, nullptr);
    EXPECT_EQ(model.varcopy, nullptr);
    EXPECT_EQ(model.sys(), f.a[1].data());
}

TEST(ModelOpen, FailedAllocationsLeaveNothingBehind) {
    TvFixture f({0, -1, -1, -1, -1, -1, -1, 1}, kFixedVar, {-1, 0, -1, -1}, 2);
    long sites = 0;
    for (long k = 1; k < 50; ++k) {
        NoLeak guard;
        tessel::Model model;
        model.check(FrameVariant::Copying, f.raw(), static_cast<int>(f.a.size()), 0, 0);
        zu::fail_allocation(k);
        const bool ok = model.open(true);
        const bool delivered = zu::injected_failure_delivered();
        zu::fail_allocation(0);
        EXPECT_EQ(ok, !delivered) << "allocation " << k;
        model.close();
        if (!delivered) break;
        ++sites;
    }
    // SysIdx table, VarIdx table, two copies and the compact list come from
    // the host; the MeanIdx vector from the library's own heap, which our host
    // supplies (ZuHeapAlloc), so it is counted and fails on request as well.
    EXPECT_EQ(sites, 6);
}
